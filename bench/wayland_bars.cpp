// A full-screen Wayland window of moving colour bars, for capture_bench's wlr part: the
// picture the X11 part paints on the root window (RootPainter::bars in processes.h), 48 bars
// 40 pixels wide, in the colours of the animation step that the clock gives (60 a second).
//
// It redraws at each frame callback rather than on a timer of its own: the compositor calls
// back once per refresh of the output, so every refresh shows the next step, where a 60 Hz
// timer would beat against the output's own 60 Hz (two steps in one refresh, one never shown,
// then a refresh with none). Three shared-memory buffers are drawn into in turn, each only
// once the compositor has let go of it.
//
//   wayland_bars [COUNT-FILE]
//
// It runs on $WAYLAND_DISPLAY until the compositor goes away. Given a file, it writes there
// once a second how many pictures it has committed and the uptime, "PICTURES SECONDS", so
// that the bench can tell how often the compositor called for a new one.

#include "xdg-shell-client-protocol.h"

#include <wayland-client.h>

#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr int barCount = 48;
constexpr int barWidth = 40;

double uptime()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// The colour of `bar` at animation step `step`, as RootPainter::bars has it (0xRRGGBB).
uint32_t barColour(uint32_t step, uint32_t bar)
{
    return ((step * 5 + bar * 11) & 0xff) << 16 | ((step * 3 + bar * 7) & 0xff) << 8 | ((step * 7 + bar * 13) & 0xff);
}

struct Buffer {
    wl_buffer* buffer = nullptr;
    uint32_t* pixels = nullptr;
    bool busy = false; // held by the compositor
};

struct Window {
    wl_display* display = nullptr;
    wl_compositor* compositor = nullptr;
    wl_shm* shm = nullptr;
    xdg_wm_base* shell = nullptr;
    wl_surface* surface = nullptr;
    xdg_surface* shellSurface = nullptr;
    xdg_toplevel* toplevel = nullptr;
    wl_callback* frame = nullptr;
    std::array<Buffer, 3> buffers;
    void* memory = nullptr; // all three, one after the other
    size_t memoryBytes = 0;
    int width = 1920, height = 1080; // until the compositor says otherwise
    int bufferWidth = 0, bufferHeight = 0;
    bool configured = false;
    bool waitingForBuffer = false; // a frame callback came while every buffer was held
    double start = 0;
    long drawn = 0;
    const char* countFile = nullptr;
    double countedAt = 0;
};

// The count so far into the count file, at most once a second.
void writeCount(Window& w)
{
    const double now = uptime();
    if (!w.countFile || now - w.countedAt < 1)
        return;
    w.countedAt = now;
    if (FILE* f = std::fopen(w.countFile, "w")) {
        std::fprintf(f, "%ld %.6f\n", w.drawn, now);
        std::fclose(f);
    }
}

void redraw(Window& w);

void bufferRelease(void* data, wl_buffer*)
{
    static_cast<Buffer*>(data)->busy = false;
}
const wl_buffer_listener bufferListener{bufferRelease};

void releaseBuffers(Window& w)
{
    for (Buffer& b : w.buffers) {
        if (b.buffer)
            wl_buffer_destroy(b.buffer);
        b = {};
    }
    if (w.memory)
        munmap(w.memory, w.memoryBytes);
    w.memory = nullptr;
}

// Three buffers of the window's size in one memory file; false when the memory is refused.
bool makeBuffers(Window& w)
{
    releaseBuffers(w);
    const size_t stride = size_t(w.width) * 4, bytes = stride * size_t(w.height);
    const size_t total = bytes * w.buffers.size();
    int fd = memfd_create("wayland-bars", MFD_CLOEXEC);
    void* memory = fd < 0 || ftruncate(fd, off_t(total)) != 0
        ? MAP_FAILED
        : mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        std::perror("wayland_bars: shared memory");
        if (fd >= 0)
            close(fd);
        return false;
    }
    w.memory = memory;
    w.memoryBytes = total;
    wl_shm_pool* pool = wl_shm_create_pool(w.shm, fd, int32_t(total));
    for (size_t i = 0; i < w.buffers.size(); ++i) {
        Buffer& b = w.buffers[i];
        b.pixels = reinterpret_cast<uint32_t*>(static_cast<uint8_t*>(memory) + i * bytes);
        b.buffer = wl_shm_pool_create_buffer(
            pool, int32_t(i * bytes), w.width, w.height, int32_t(stride), WL_SHM_FORMAT_XRGB8888);
        wl_buffer_add_listener(b.buffer, &bufferListener, &b);
    }
    wl_shm_pool_destroy(pool);
    close(fd);
    w.bufferWidth = w.width;
    w.bufferHeight = w.height;
    return true;
}

// The bars of `step` over the whole buffer: one row, then copies of it.
void paint(const Window& w, uint32_t* pixels, uint32_t step)
{
    for (int x = 0; x < w.width; ++x) {
        const int bar = x / barWidth;
        pixels[x] = bar < barCount ? barColour(step, uint32_t(bar)) : 0;
    }
    for (int y = 1; y < w.height; ++y)
        std::memcpy(pixels + size_t(y) * size_t(w.width), pixels, size_t(w.width) * 4);
}

void frameDone(void* data, wl_callback* callback, uint32_t)
{
    auto& w = *static_cast<Window*>(data);
    wl_callback_destroy(callback);
    w.frame = nullptr;
    redraw(w);
}
const wl_callback_listener frameListener{frameDone};

void redraw(Window& w)
{
    if ((w.bufferWidth != w.width || w.bufferHeight != w.height) && !makeBuffers(w))
        return;
    Buffer* free = nullptr;
    for (Buffer& b : w.buffers)
        if (!b.busy && !free)
            free = &b;
    if (!free) {
        w.waitingForBuffer = true;
        return;
    }
    w.waitingForBuffer = false;
    // The step the clock has reached; rounded, so callbacks a refresh apart that jitter by a
    // few milliseconds still land one step apart.
    paint(w, free->pixels, uint32_t(std::lround((uptime() - w.start) * 60)));
    free->busy = true;
    wl_surface_attach(w.surface, free->buffer, 0, 0);
    wl_surface_damage_buffer(w.surface, 0, 0, w.width, w.height);
    w.frame = wl_surface_frame(w.surface);
    wl_callback_add_listener(w.frame, &frameListener, &w);
    wl_surface_commit(w.surface);
    ++w.drawn;
    writeCount(w);
}

void shellPing(void*, xdg_wm_base* shell, uint32_t serial)
{
    xdg_wm_base_pong(shell, serial);
}
const xdg_wm_base_listener shellListener{shellPing};

void surfaceConfigure(void* data, xdg_surface* surface, uint32_t serial)
{
    auto& w = *static_cast<Window*>(data);
    xdg_surface_ack_configure(surface, serial);
    if (!w.configured) {
        w.configured = true;
        w.start = uptime();
        redraw(w);
    }
}
const xdg_surface_listener surfaceListener{surfaceConfigure};

void toplevelConfigure(void* data, xdg_toplevel*, int32_t width, int32_t height, wl_array*)
{
    auto& w = *static_cast<Window*>(data);
    if (width > 0 && height > 0) {
        w.width = width;
        w.height = height;
    }
}
void toplevelClose(void*, xdg_toplevel*)
{
}
const xdg_toplevel_listener toplevelListener{toplevelConfigure, toplevelClose};

void global(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version)
{
    auto& w = *static_cast<Window*>(data);
    if (std::strcmp(interface, wl_compositor_interface.name) == 0)
        w.compositor = static_cast<wl_compositor*>(wl_registry_bind(registry, name, &wl_compositor_interface, 4));
    else if (std::strcmp(interface, wl_shm_interface.name) == 0)
        w.shm = static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    else if (std::strcmp(interface, xdg_wm_base_interface.name) == 0)
        w.shell = static_cast<xdg_wm_base*>(
            wl_registry_bind(registry, name, &xdg_wm_base_interface, version < 2 ? version : 2));
}
void globalRemove(void*, wl_registry*, uint32_t)
{
}
const wl_registry_listener registryListener{global, globalRemove};

} // namespace

int main(int argc, char** argv)
{
    Window w;
    w.countFile = argc > 1 ? argv[1] : nullptr;
    w.display = wl_display_connect(nullptr);
    if (!w.display) {
        std::fprintf(stderr, "wayland_bars: no Wayland compositor answers.\n");
        return 1;
    }
    wl_registry* registry = wl_display_get_registry(w.display);
    wl_registry_add_listener(registry, &registryListener, &w);
    wl_display_roundtrip(w.display);
    if (!w.compositor || !w.shm || !w.shell) {
        std::fprintf(stderr, "wayland_bars: the compositor lacks wl_compositor, wl_shm or xdg_wm_base.\n");
        return 1;
    }
    xdg_wm_base_add_listener(w.shell, &shellListener, &w);
    w.surface = wl_compositor_create_surface(w.compositor);
    w.shellSurface = xdg_wm_base_get_xdg_surface(w.shell, w.surface);
    xdg_surface_add_listener(w.shellSurface, &surfaceListener, &w);
    w.toplevel = xdg_surface_get_toplevel(w.shellSurface);
    xdg_toplevel_add_listener(w.toplevel, &toplevelListener, &w);
    xdg_toplevel_set_title(w.toplevel, "bars");
    xdg_toplevel_set_fullscreen(w.toplevel, nullptr);
    wl_surface_commit(w.surface);
    while (wl_display_dispatch(w.display) >= 0)
        if (w.waitingForBuffer)
            redraw(w);
    std::fprintf(stderr, "wayland_bars: the compositor went away after %ld pictures.\n", w.drawn);
    return 0;
}
