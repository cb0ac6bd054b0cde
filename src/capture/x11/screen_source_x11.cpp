// Frames from an X server through MIT-SHM: the server writes each picture into a shared
// segment and the source copies it once into an Image (setting the alpha byte, which X
// leaves undefined). Windows are read from their Composite pixmap, so a covered or moved
// window still shows its own content.

#include "capture/x11/desktop_x11.h"
#include "capture/x11/x11_connection.h"
#include "capture/pixel_rows.h"
#include "capture/ticking_screen_source.h"

#include "base/clock.h"
#include "base/log.h"

#include <xcb/composite.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <emmintrin.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace plim {

namespace {

constexpr const char* windowGone = "That window is gone.";

class ShmSegment {
public:
    ~ShmSegment() { release(); }

    Status create(xcb_connection_t* connection, size_t bytes)
    {
        m_connection = connection;
        m_id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (m_id < 0)
            return fail("Plim could not set up shared memory for the screen picture. Nothing was recorded. "
                        "Close other programs and roll again.");
        void* address = shmat(m_id, nullptr, SHM_RDONLY);
        if (address == reinterpret_cast<void*>(-1)) {
            shmctl(m_id, IPC_RMID, nullptr);
            m_id = -1;
            return fail("Plim could not map shared memory for the screen picture. Nothing was recorded. "
                        "Close other programs and roll again.");
        }
        m_data = static_cast<uint8_t*>(address);
        m_seg = xcb_generate_id(connection);
        xcb_generic_error_t* error = xcb_request_check(connection, xcb_shm_attach_checked(connection, m_seg, m_id, 0));
        // Marked for removal now, so the segment goes away with the last user even after a crash.
        shmctl(m_id, IPC_RMID, nullptr);
        if (error) {
            std::free(error);
            m_seg = 0;
            return fail("The X server would not share memory with Plim (MIT-SHM), so the screen cannot be read. "
                        "Nothing was recorded. Record on a local X display.");
        }
        m_bytes = bytes;
        return {};
    }

    void release()
    {
        if (m_seg && m_connection)
            xcb_shm_detach(m_connection, m_seg);
        if (m_data)
            shmdt(m_data);
        m_seg = 0;
        m_data = nullptr;
    }

    uint32_t seg() const { return m_seg; }
    const uint8_t* data() const { return m_data; }
    size_t bytes() const { return m_bytes; }

private:
    xcb_connection_t* m_connection = nullptr;
    int m_id = -1;
    uint32_t m_seg = 0;
    uint8_t* m_data = nullptr;
    size_t m_bytes = 0;
};

class X11ScreenSource final : public TickingScreenSource {
    // The session queues a few frames for its writer; a backlog beyond the prepared ones
    // grows the pool up to the limit, and past it each frame gets a picture of its own.
    static constexpr size_t poolPrepared = 10;
    static constexpr size_t poolLimit = 16;

public:
    X11ScreenSource(std::unique_ptr<X11Connection> x11, Rect frame, std::optional<uint32_t> window)
        : m_x11(std::move(x11)), m_frame(frame), m_window(window),
          m_pixelWidth(static_cast<int>(frame.width)), m_pixelHeight(static_cast<int>(frame.height))
    {
    }
    ~X11ScreenSource() override
    {
        stop();
        freePixmap();
    }

    Status prepare()
    {
        if (!m_x11->hasExtension("MIT-SHM"))
            return fail("The X server has no shared-memory extension (MIT-SHM), so the screen cannot be read. "
                        "Nothing was recorded. Record on a local X display.");
        PLIM_TRY(m_segment.create(m_x11->connection(), size_t(m_pixelWidth) * size_t(m_pixelHeight) * 4));
        // Pictures for the frames in flight, made now: a fresh 1080p picture can cost some
        // 27 ms of page faults, more than a tick, and it would be made while rolling.
        while (m_pool.size() < poolPrepared)
            m_pool.push_back(Image::allocate(m_pixelWidth, m_pixelHeight));
        // One picture taken now maps the shared memory on both sides, which costs the
        // first grab tens of milliseconds. A failure here shows again on the first tick.
        (void)grab();
        if (m_window) {
            if (!m_x11->hasExtension("Composite"))
                return fail("The X server has no Composite extension, so a window cannot be followed. "
                            "Nothing was recorded. Record the display or an area instead.");
            auto version = xcb_composite_query_version_reply(m_x11->connection(),
                xcb_composite_query_version(m_x11->connection(), 0, 4), nullptr);
            std::free(version);
            xcb_composite_redirect_window(m_x11->connection(), *m_window, XCB_COMPOSITE_REDIRECT_AUTOMATIC);
            xcb_flush(m_x11->connection());
        }
        return {};
    }

    Rect frame() const override { return m_frame; }
    double scale() const override { return 1.0; }
    std::optional<uint32_t> windowID() const override { return m_window; }

private:
    static void sleepUntil(double uptime)
    {
        timespec until{};
        until.tv_sec = static_cast<time_t>(uptime);
        until.tv_nsec = static_cast<long>((uptime - double(until.tv_sec)) * 1e9);
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
        }
    }

    void run(std::stop_token stop) override
    {
        double next = systemUptime();
        while (!stop.stop_requested()) {
            sleepUntil(next);
            if (stop.stop_requested())
                break;
            double taken = systemUptime();
            Result<Image> image = grab();
            if (!image)
                return end(image.error());
            deliver(CapturedFrame{std::move(*image), taken}, next);
        }
    }

    // An Image no one else holds any more, or a new one.
    Image recycledImage()
    {
        for (Image& image : m_pool)
            if (image.pixels.use_count() == 1)
                return image;
        Image image = Image::allocate(m_pixelWidth, m_pixelHeight);
        if (m_pool.size() < poolLimit)
            m_pool.push_back(image);
        return image;
    }

    void freePixmap()
    {
        if (m_pixmap)
            xcb_free_pixmap(m_x11->connection(), m_pixmap);
        m_pixmap = 0;
    }

    // The drawable and the region of it to read this frame.
    Result<std::pair<uint32_t, Rect>> source()
    {
        if (!m_window)
            return std::pair{m_x11->root(), m_frame};
        xcb_connection_t* c = m_x11->connection();
        std::unique_ptr<xcb_get_geometry_reply_t, decltype(&std::free)> geometry(
            xcb_get_geometry_reply(c, xcb_get_geometry(c, *m_window), nullptr), &std::free);
        if (!geometry)
            return fail(windowGone, Error::Kind::missing);
        Size size{double(geometry->width), double(geometry->height)};
        if (!m_pixmap || size != m_pixmapSize) {
            freePixmap();
            uint32_t pixmap = xcb_generate_id(c);
            if (auto* error = xcb_request_check(c, xcb_composite_name_window_pixmap_checked(c, *m_window, pixmap))) {
                std::free(error);
                // An unmapped window has no pixmap; show the last picture until it maps again.
                return std::pair{uint32_t(0), Rect{}};
            }
            m_pixmap = pixmap;
            m_pixmapSize = size;
        }
        return std::pair{m_pixmap, Rect{0, 0, std::min(size.width, double(m_pixelWidth)),
                                      std::min(size.height, double(m_pixelHeight))}};
    }

    Result<Image> grab()
    {
        auto [drawable, region] = PLIM_TRY(source());
        Image image = recycledImage();
        if (!drawable || region.width < 1 || region.height < 1) {
            if (!m_last.isEmpty())
                return m_last;
            return image;
        }
        xcb_connection_t* c = m_x11->connection();
        auto cookie = xcb_shm_get_image(c, drawable, int16_t(region.x), int16_t(region.y), uint16_t(region.width),
            uint16_t(region.height), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, m_segment.seg(), 0);
        xcb_generic_error_t* error = nullptr;
        std::unique_ptr<xcb_shm_get_image_reply_t, decltype(&std::free)> reply(
            xcb_shm_get_image_reply(c, cookie, &error), &std::free);
        if (!reply) {
            std::free(error);
            if (m_window) {
                freePixmap();
                if (!m_x11->windowFrame(*m_window))
                    return fail(windowGone, Error::Kind::missing);
                return m_last.isEmpty() ? image : m_last;
            }
            return fail("Recording ended early because the X server stopped handing out the screen picture. "
                        "What was recorded so far is kept.");
        }
        const int width = int(region.width), height = int(region.height);
        const uint8_t* src = m_segment.data();
        for (int y = 0; y < height; ++y)
            copyOpaqueRow(image.row(y), src + size_t(y) * size_t(width) * 4, width);
        if (width < m_pixelWidth || height < m_pixelHeight) {
            // A window that shrank: the rest of the picture is black.
            for (int y = 0; y < m_pixelHeight; ++y) {
                int from = y < height ? width : 0;
                for (int x = from; x < m_pixelWidth; ++x)
                    std::memcpy(image.row(y) + x * 4, "\0\0\0\xff", 4);
            }
        }
        m_last = image;
        return image;
    }

    std::unique_ptr<X11Connection> m_x11;
    Rect m_frame;
    std::optional<uint32_t> m_window;
    int m_pixelWidth;
    int m_pixelHeight;
    ShmSegment m_segment;
    uint32_t m_pixmap = 0;
    Size m_pixmapSize;
    std::vector<Image> m_pool;
    Image m_last;
};

Status checkSize(const Rect& frame)
{
    if (!(frame.width >= 2) || !(frame.height >= 2))
    {
        char size[96];
        std::snprintf(size, sizeof size, "%g x %g", frame.width, frame.height);
        return fail(std::string("That subject reports a size of ") + size + " points, which is too small to record.",
            Error::Kind::refused);
    }
    return {};
}

} // namespace

Result<std::unique_ptr<ScreenSource>> createX11ScreenSource(const ScreenSubject& subject,
    const std::optional<std::string>& display)
{
    if (subject.kind == ScreenSubject::Kind::device)
        return fail("A device subject reached the screen path.", Error::Kind::refused);
    auto x11 = PLIM_TRY(X11Connection::open(display));
    Rect root{0, 0, x11->rootSize().width, x11->rootSize().height};
    Rect frame;
    std::optional<uint32_t> window;
    switch (subject.kind) {
    case ScreenSubject::Kind::display: {
        auto outputs = x11->outputs();
        const X11Connection::Output* chosen = nullptr;
        for (const auto& output : outputs)
            if (subject.displayName.empty() ? output.primary : output.name == subject.displayName)
                chosen = &output;
        if (!chosen && subject.displayName.empty())
            chosen = &outputs.front();
        if (!chosen) {
            std::string names;
            for (const auto& output : outputs)
                names += (names.empty() ? "" : ", ") + output.name;
            return fail("There is no display called \"" + subject.displayName
                    + "\" to record. Nothing was recorded. Pick one of: " + names + ".",
                Error::Kind::missing);
        }
        frame = chosen->frame;
        break;
    }
    case ScreenSubject::Kind::window: {
        auto found = x11->windowFrame(subject.windowID);
        if (!found)
            return fail(windowGone, Error::Kind::missing);
        frame = *found;
        window = subject.windowID;
        break;
    }
    case ScreenSubject::Kind::area: {
        PLIM_TRY(checkSize(subject.area));
        // Whole pixels inside the root window.
        double x0 = std::max(root.x, std::floor(subject.area.x)), y0 = std::max(root.y, std::floor(subject.area.y));
        double x1 = std::min(root.maxX(), std::floor(subject.area.maxX()));
        double y1 = std::min(root.maxY(), std::floor(subject.area.maxY()));
        frame = {x0, y0, std::max(0.0, x1 - x0), std::max(0.0, y1 - y0)};
        if (!(frame.width >= 2) || !(frame.height >= 2)) {
            char text[256];
            std::snprintf(text, sizeof text, "The area %g,%g %gx%g lies off the screen, which is %g x %g pixels, so "
                "nothing was recorded. Pick an area on the screen.", subject.area.x, subject.area.y,
                subject.area.width, subject.area.height, root.width, root.height);
            return fail(text, Error::Kind::refused);
        }
        break;
    }
    case ScreenSubject::Kind::device:
        break;
    }
    PLIM_TRY(checkSize(frame));
    auto source = std::make_unique<X11ScreenSource>(std::move(x11), frame, window);
    PLIM_TRY(source->prepare());
    return std::unique_ptr<ScreenSource>(std::move(source));
}

} // namespace plim
