// The Wayland connection, its outputs, shared-memory buffers and screencopy frames.

#include "capture/wayland/wayland_connection.h"

#include "base/clock.h"
#include "capture/pixel_rows.h"

#include "wlr-screencopy-unstable-v1-client.h"
#include "xdg-output-unstable-v1-client.h"

#include <wayland-client.h>

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace plim {

namespace {

constexpr const char* noCompositor = "No Wayland compositor answers at \"%s\".";

void outputGeometry(void* data, wl_output*, int32_t, int32_t, int32_t, int32_t, int32_t, const char*, const char*,
    int32_t transform)
{
    static_cast<WaylandConnection::Output*>(data)->transform = transform;
}

void outputMode(void* data, wl_output*, uint32_t flags, int32_t width, int32_t height, int32_t)
{
    auto* output = static_cast<WaylandConnection::Output*>(data);
    if (flags & WL_OUTPUT_MODE_CURRENT) {
        output->pixelWidth = width;
        output->pixelHeight = height;
    }
}

void outputDone(void*, wl_output*) {}
void outputScale(void* data, wl_output*, int32_t factor) { static_cast<WaylandConnection::Output*>(data)->scale = factor; }

void outputName(void* data, wl_output*, const char* name)
{
    auto* output = static_cast<WaylandConnection::Output*>(data);
    if (output->name.empty())
        output->name = name;
}

void outputDescription(void*, wl_output*, const char*) {}

const wl_output_listener outputListener{outputGeometry, outputMode, outputDone, outputScale, outputName, outputDescription};

void xdgPosition(void* data, zxdg_output_v1*, int32_t x, int32_t y)
{
    auto* output = static_cast<WaylandConnection::Output*>(data);
    output->frame.x = x;
    output->frame.y = y;
}

void xdgSize(void* data, zxdg_output_v1*, int32_t width, int32_t height)
{
    auto* output = static_cast<WaylandConnection::Output*>(data);
    output->frame.width = width;
    output->frame.height = height;
}

void xdgDone(void*, zxdg_output_v1*) {}
void xdgName(void* data, zxdg_output_v1*, const char* name) { static_cast<WaylandConnection::Output*>(data)->name = name; }
void xdgDescription(void*, zxdg_output_v1*, const char*) {}

const zxdg_output_v1_listener xdgOutputListener{xdgPosition, xdgSize, xdgDone, xdgName, xdgDescription};

bool readable(uint32_t format)
{
    return format == WL_SHM_FORMAT_XRGB8888 || format == WL_SHM_FORMAT_ARGB8888 || format == WL_SHM_FORMAT_XBGR8888
        || format == WL_SHM_FORMAT_ABGR8888;
}

bool swapsRedAndBlue(uint32_t format) { return format == WL_SHM_FORMAT_XBGR8888 || format == WL_SHM_FORMAT_ABGR8888; }

// Turns 90 or 270 degrees, so width and height trade places.
bool turnsSideways(int32_t transform) { return transform & 1; }

} // namespace

void WaylandConnection::onGlobal(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version)
{
    auto* self = static_cast<WaylandConnection*>(data);
    const std::string kind = interface;
    if (kind == wl_shm_interface.name && !self->m_shm) {
        self->m_shm = static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (kind == wl_output_interface.name) {
        auto output = std::make_unique<Output>();
        output->global = name;
        output->handle = static_cast<wl_output*>(wl_registry_bind(registry, name, &wl_output_interface,
            std::min(version, 4u)));
        wl_output_add_listener(output->handle, &outputListener, output.get());
        if (self->m_xdgOutputs)
            self->describe(*output);
        self->m_outputs.push_back(std::move(output));
    } else if (kind == zwlr_screencopy_manager_v1_interface.name && !self->m_screencopy) {
        self->m_screencopyVersion = std::min(version, 3u);
        self->m_screencopy = static_cast<zwlr_screencopy_manager_v1*>(wl_registry_bind(registry, name,
            &zwlr_screencopy_manager_v1_interface, self->m_screencopyVersion));
    } else if (kind == zxdg_output_manager_v1_interface.name && !self->m_xdgOutputs) {
        self->m_xdgOutputs = static_cast<zxdg_output_manager_v1*>(wl_registry_bind(registry, name,
            &zxdg_output_manager_v1_interface, std::min(version, 3u)));
        for (auto& output : self->m_outputs)
            if (!output->xdg)
                self->describe(*output);
    }
}

void WaylandConnection::onGlobalRemove(void* data, wl_registry*, uint32_t name)
{
    for (auto& output : static_cast<WaylandConnection*>(data)->m_outputs)
        if (output->global == name)
            output->gone = true;
}

void WaylandConnection::describe(Output& output)
{
    output.xdg = zxdg_output_manager_v1_get_xdg_output(m_xdgOutputs, output.handle);
    zxdg_output_v1_add_listener(output.xdg, &xdgOutputListener, &output);
}

Result<std::unique_ptr<WaylandConnection>> WaylandConnection::open()
{
    std::unique_ptr<WaylandConnection> self(new WaylandConnection());
    const char* name = std::getenv("WAYLAND_DISPLAY");
    self->m_name = name && *name ? name : "wayland-0";
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (self->m_name.front() != '/' && !(runtime && *runtime))
        return fail("No Wayland compositor can be reached: XDG_RUNTIME_DIR is not set.", Error::Kind::missing);
    self->m_display = wl_display_connect(nullptr);
    if (!self->m_display) {
        char text[512];
        std::snprintf(text, sizeof text, noCompositor, self->m_name.c_str());
        return fail(text, Error::Kind::missing);
    }
    static const wl_registry_listener registryListener{&WaylandConnection::onGlobal, &WaylandConnection::onGlobalRemove};
    self->m_registry = wl_display_get_registry(self->m_display);
    wl_registry_add_listener(self->m_registry, &registryListener, self.get());
    // The globals, then the outputs' descriptions, then their xdg-output ones.
    for (int round = 0; round < 3; ++round)
        PLIM_TRY(self->roundtrip());
    for (auto& output : self->m_outputs) {
        if (output->frame.width <= 0 || output->frame.height <= 0) {
            // No xdg-output: the logical size from the mode, the scale and the transform.
            int w = output->pixelWidth, h = output->pixelHeight;
            if (turnsSideways(output->transform))
                std::swap(w, h);
            output->frame.width = double(w) / std::max(1, output->scale);
            output->frame.height = double(h) / std::max(1, output->scale);
        }
        if (output->name.empty())
            output->name = "output-" + std::to_string(output->global);
    }
    return self;
}

WaylandConnection::~WaylandConnection()
{
    if (!m_display)
        return;
    for (auto& output : m_outputs) {
        if (output->xdg)
            zxdg_output_v1_destroy(output->xdg);
        if (wl_output_get_version(output->handle) >= WL_OUTPUT_RELEASE_SINCE_VERSION)
            wl_output_release(output->handle);
        else
            wl_output_destroy(output->handle);
    }
    if (m_xdgOutputs)
        zxdg_output_manager_v1_destroy(m_xdgOutputs);
    if (m_screencopy)
        zwlr_screencopy_manager_v1_destroy(m_screencopy);
    if (m_shm)
        wl_shm_destroy(m_shm);
    if (m_registry)
        wl_registry_destroy(m_registry);
    wl_display_disconnect(m_display);
}

std::vector<const WaylandConnection::Output*> WaylandConnection::outputs() const
{
    std::vector<const Output*> result;
    for (const auto& output : m_outputs)
        if (!output->gone)
            result.push_back(output.get());
    return result;
}

const WaylandConnection::Output* WaylandConnection::output(const std::string& name) const
{
    for (const Output* output : outputs())
        if (output->name == name)
            return output;
    return nullptr;
}

const WaylandConnection::Output* WaylandConnection::outputAt(double x, double y) const
{
    for (const Output* output : outputs())
        if (x >= output->frame.x && x < output->frame.maxX() && y >= output->frame.y && y < output->frame.maxY())
            return output;
    return nullptr;
}

Rect WaylandConnection::bounds() const
{
    auto all = outputs();
    if (all.empty())
        return {};
    double x0 = all[0]->frame.x, y0 = all[0]->frame.y, x1 = all[0]->frame.maxX(), y1 = all[0]->frame.maxY();
    for (const Output* output : all) {
        x0 = std::min(x0, output->frame.x);
        y0 = std::min(y0, output->frame.y);
        x1 = std::max(x1, output->frame.maxX());
        y1 = std::max(y1, output->frame.maxY());
    }
    return {x0, y0, x1 - x0, y1 - y0};
}

Error WaylandConnection::broken() const
{
    return Error{"The connection to the Wayland compositor broke (" + std::string(std::strerror(wl_display_get_error(m_display)))
            + "), so the screen can no longer be read.",
        Error::Kind::failed};
}

Status WaylandConnection::roundtrip()
{
    if (wl_display_roundtrip(m_display) < 0)
        return std::unexpected(broken());
    return {};
}

void WaylandConnection::flush()
{
    wl_display_flush(m_display);
}

Result<bool> WaylandConnection::dispatchUntil(const std::function<bool()>& done, double until)
{
    while (!done()) {
        while (wl_display_prepare_read(m_display) != 0)
            if (wl_display_dispatch_pending(m_display) < 0)
                return std::unexpected(broken());
        if (done()) {
            wl_display_cancel_read(m_display);
            return true;
        }
        if (wl_display_flush(m_display) < 0 && errno != EAGAIN) {
            wl_display_cancel_read(m_display);
            return std::unexpected(broken());
        }
        const double left = until - systemUptime();
        if (left <= 0) {
            wl_display_cancel_read(m_display);
            return false;
        }
        pollfd fd{wl_display_get_fd(m_display), POLLIN, 0};
        int ready = poll(&fd, 1, std::max(1, int(std::ceil(left * 1000))));
        if (ready > 0) {
            if (wl_display_read_events(m_display) < 0)
                return std::unexpected(broken());
        } else {
            wl_display_cancel_read(m_display);
        }
        if (wl_display_dispatch_pending(m_display) < 0)
            return std::unexpected(broken());
    }
    return true;
}

Result<std::unique_ptr<ShmBuffer>> ShmBuffer::create(wl_shm* shm, const Layout& layout)
{
    std::unique_ptr<ShmBuffer> self(new ShmBuffer());
    self->m_layout = layout;
    self->m_bytes = size_t(layout.stride) * size_t(layout.height);
    const char* sentence = "Plim could not set up shared memory for the screen picture. Nothing was recorded. "
                           "Close other programs and roll again.";
    int fd = memfd_create("plim-screencopy", MFD_CLOEXEC);
    if (fd < 0)
        return fail(sentence);
    if (ftruncate(fd, off_t(self->m_bytes)) != 0) {
        close(fd);
        return fail(sentence);
    }
    void* address = mmap(nullptr, self->m_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) {
        close(fd);
        return fail(sentence);
    }
    self->m_data = static_cast<uint8_t*>(address);
    wl_shm_pool* pool = wl_shm_create_pool(shm, fd, int32_t(self->m_bytes));
    self->m_buffer = wl_shm_pool_create_buffer(pool, 0, layout.width, layout.height, layout.stride, layout.format);
    wl_shm_pool_destroy(pool);
    close(fd);
    return self;
}

ShmBuffer::~ShmBuffer()
{
    if (m_buffer)
        wl_buffer_destroy(m_buffer);
    if (m_data)
        munmap(m_data, m_bytes);
}

struct ScreenCopyEvents {
    static ScreenCopy& of(void* data) { return *static_cast<ScreenCopy*>(data); }
    static void buffer(void* data, zwlr_screencopy_frame_v1*, uint32_t format, uint32_t width, uint32_t height,
        uint32_t stride)
    {
        ScreenCopy& copy = of(data);
        if (!copy.m_layout && readable(format))
            copy.m_layout = ShmBuffer::Layout{format, int(width), int(height), int(stride)};
        // Before version 3 the compositor names one layout and no buffer_done follows.
        if (copy.m_wayland.screencopyVersion() < 3)
            copy.m_layoutDone = true;
    }
    static void flags(void* data, zwlr_screencopy_frame_v1*, uint32_t flags)
    {
        of(data).m_yInvert = flags & ZWLR_SCREENCOPY_FRAME_V1_FLAGS_Y_INVERT;
    }
    static void ready(void* data, zwlr_screencopy_frame_v1*, uint32_t secondsHigh, uint32_t secondsLow, uint32_t nanoseconds)
    {
        ScreenCopy& copy = of(data);
        // The compositor's instant is on the monotonic clock; one far from now is not.
        const double now = systemUptime();
        const double shown = double((uint64_t(secondsHigh) << 32) | secondsLow) + double(nanoseconds) * 1e-9;
        copy.m_shownAt = std::abs(shown - now) < 1.0 ? std::min(shown, now) : now;
        copy.m_state = ScreenCopy::State::ready;
    }
    static void failed(void* data, zwlr_screencopy_frame_v1*) { of(data).m_state = ScreenCopy::State::failed; }
    static void damage(void*, zwlr_screencopy_frame_v1*, uint32_t, uint32_t, uint32_t, uint32_t) {}
    static void dmabuf(void*, zwlr_screencopy_frame_v1*, uint32_t, uint32_t, uint32_t) {}
    static void bufferDone(void* data, zwlr_screencopy_frame_v1*) { of(data).m_layoutDone = true; }
};

namespace {
const zwlr_screencopy_frame_v1_listener frameListener{ScreenCopyEvents::buffer, ScreenCopyEvents::flags,
    ScreenCopyEvents::ready, ScreenCopyEvents::failed, ScreenCopyEvents::damage, ScreenCopyEvents::dmabuf,
    ScreenCopyEvents::bufferDone};
} // namespace

ScreenCopy::ScreenCopy(WaylandConnection& wayland, const WaylandConnection::Output& output, std::optional<Rect> region,
    bool withPointer)
    : m_wayland(wayland)
{
    if (region)
        m_frame = zwlr_screencopy_manager_v1_capture_output_region(wayland.screencopy(), withPointer, output.handle,
            int32_t(region->x), int32_t(region->y), int32_t(region->width), int32_t(region->height));
    else
        m_frame = zwlr_screencopy_manager_v1_capture_output(wayland.screencopy(), withPointer, output.handle);
    zwlr_screencopy_frame_v1_add_listener(m_frame, &frameListener, this);
}

ScreenCopy::~ScreenCopy() { zwlr_screencopy_frame_v1_destroy(m_frame); }

Status ScreenCopy::copyWhenKnown(std::unique_ptr<ShmBuffer>& pool, bool damaged)
{
    if (!m_layout)
        return fail("The Wayland compositor offers the screen picture only in pixel formats Plim does not read. "
                    "Nothing was recorded.",
            Error::Kind::refused);
    if (!pool || !(pool->layout() == *m_layout)) {
        pool.reset();
        pool = PLIM_TRY(ShmBuffer::create(m_wayland.shm(), *m_layout));
    }
    if (damaged && m_wayland.screencopyVersion() >= 2)
        zwlr_screencopy_frame_v1_copy_with_damage(m_frame, pool->buffer());
    else
        zwlr_screencopy_frame_v1_copy(m_frame, pool->buffer());
    m_state = State::copying;
    return {};
}

Image pictureFromBuffer(const ShmBuffer& buffer, bool yInverted, int32_t transform, Image into)
{
    const ShmBuffer::Layout& layout = buffer.layout();
    const bool sideways = turnsSideways(transform);
    const int width = sideways ? layout.height : layout.width;
    const int height = sideways ? layout.width : layout.height;
    if (into.width != width || into.height != height || into.isEmpty())
        into = Image::uninitialized(width, height);
    const bool swap = swapsRedAndBlue(layout.format);
    auto sourceRow = [&](int y) { return buffer.data() + size_t(yInverted ? layout.height - 1 - y : y) * size_t(layout.stride); };
    if (transform == WL_OUTPUT_TRANSFORM_NORMAL && !swap) {
        for (int y = 0; y < height; ++y)
            copyOpaqueRow(into.row(y), sourceRow(y), width);
        return into;
    }
    // The compositor wrote the picture turned by the output's transform (after any
    // flip): find each shown pixel's place in the buffer.
    const int W = width, H = height;
    for (int y = 0; y < H; ++y) {
        uint8_t* out = into.row(y);
        for (int x = 0; x < W; ++x) {
            int bx = x, by = y;
            switch (transform) {
            case WL_OUTPUT_TRANSFORM_90: bx = y; by = W - 1 - x; break;
            case WL_OUTPUT_TRANSFORM_180: bx = W - 1 - x; by = H - 1 - y; break;
            case WL_OUTPUT_TRANSFORM_270: bx = H - 1 - y; by = x; break;
            case WL_OUTPUT_TRANSFORM_FLIPPED: bx = W - 1 - x; break;
            case WL_OUTPUT_TRANSFORM_FLIPPED_90: bx = y; by = x; break;
            case WL_OUTPUT_TRANSFORM_FLIPPED_180: by = H - 1 - y; break;
            case WL_OUTPUT_TRANSFORM_FLIPPED_270: bx = H - 1 - y; by = W - 1 - x; break;
            default: break;
            }
            const uint8_t* p = sourceRow(by) + size_t(bx) * 4;
            out[x * 4 + 0] = swap ? p[2] : p[0];
            out[x * 4 + 1] = p[1];
            out[x * 4 + 2] = swap ? p[0] : p[2];
            out[x * 4 + 3] = 0xff;
        }
    }
    return into;
}

Result<Image> takePicture(WaylandConnection& wayland, const WaylandConnection::Output& output, std::optional<Rect> region,
    bool withPointer)
{
    const char* noPicture = "The Wayland compositor did not hand out the screen picture.";
    ScreenCopy copy(wayland, output, region, withPointer);
    std::unique_ptr<ShmBuffer> buffer;
    const double until = systemUptime() + 5;
    if (!PLIM_TRY(wayland.dispatchUntil([&] { return copy.layoutKnown() || copy.state() == ScreenCopy::State::failed; }, until))
        || copy.state() == ScreenCopy::State::failed)
        return fail(noPicture);
    PLIM_TRY(copy.copyWhenKnown(buffer, false));
    if (!PLIM_TRY(wayland.dispatchUntil([&] { return copy.state() != ScreenCopy::State::copying; }, until))
        || copy.state() != ScreenCopy::State::ready)
        return fail(noPicture);
    return pictureFromBuffer(*buffer, copy.yInverted(), output.transform);
}

} // namespace plim
