// The portal desktop. Each screen source runs a screen cast of its own: the desktop's dialog
// (or a restore token it accepts) picks the display or window, and the pictures come from
// the cast's PipeWire stream. The token the desktop hands back is kept in the settings, so
// the user chooses once. The pointer comes from the stream's cursor metadata where the
// portal offers it; elsewhere the desktop draws it into the pictures.

#include "capture/wayland/desktop_portal.h"

#include "base/clock.h"
#include "base/json.h"
#include "base/log.h"
#include "base/settings.h"
#include "capture/linux_input/input_libinput.h"
#include "capture/pointer_source.h"
#include "capture/ticking_screen_source.h"
#include "capture/wayland/keymap_wayland.h"
#include "capture/wayland/pipewire_stream.h"
#include "capture/wayland/screen_cast_portal.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>

namespace plim {

namespace {

constexpr const char* monitorTokenKey = "screenCastRestoreToken";
constexpr const char* windowTokenKey = "screenCastWindowRestoreToken";
constexpr double firstPictureWait = 10;
// A running screen cast: the portal session, its stream, and where the stream lies.
struct PortalCast {
    std::unique_ptr<ScreenCastPortal> portal;
    std::unique_ptr<PipeWireStream> stream;
    ScreenCastPortal::CursorMode cursor = ScreenCastPortal::hidden;
    Point origin;   // the stream's top-left in global points (a window's: 0,0)
    Rect extent;    // the whole stream, in global points
    Rect frame;     // what the source delivers, in global points
};

class PortalPointer final : public PointerSource {
public:
    explicit PortalPointer(std::shared_ptr<PortalCast> cast) : m_cast(std::move(cast)) {}
    std::optional<Point> position() override
    {
        auto cursor = m_cast->stream->cursor();
        if (!cursor)
            return std::nullopt;
        const double scale = m_cast->stream->scale();
        return Point{m_cast->origin.x + cursor->position.x / scale, m_cast->origin.y + cursor->position.y / scale};
    }

private:
    std::shared_ptr<PortalCast> m_cast;
};

class PortalScreenSource final : public TickingScreenSource {
public:
    PortalScreenSource(std::shared_ptr<PortalCast> cast, std::optional<uint32_t> windowID)
        : m_cast(std::move(cast)), m_windowID(windowID)
    {
    }
    ~PortalScreenSource() override
    {
        stop();
        logLine(LogArea::main, "the desktop portal's stream: " + std::to_string(m_cast->stream->copiedFrames())
                + " pictures copied (one copy each) for " + std::to_string(deliveredFrames()) + " frames delivered, "
                + std::to_string(m_cast->stream->emptyBuffers()) + " empty buffers skipped, "
                + std::to_string(m_cast->stream->formatsAgreed()) + " formats agreed");
    }

    Rect frame() const override { return m_cast->frame; }
    double scale() const override { return m_cast->stream->scale(); }
    std::optional<uint32_t> windowID() const override { return m_windowID; }

private:
    // Each tick hands on the newest picture, or the last one again: the desktop sends a
    // picture only when the screen changes.
    void run(std::stop_token stop) override
    {
        std::mutex sleepLock;
        std::condition_variable_any sleeper;
        double next = systemUptime();
        // A picture that came before the start shows from the start.
        double lastAt = next - minimumStampGap;
        Image last;
        while (!stop.stop_requested()) {
            {
                std::unique_lock guard(sleepLock);
                const double wait = next - systemUptime();
                if (wait > 0)
                    sleeper.wait_for(guard, stop, std::chrono::duration<double>(wait), [] { return false; });
            }
            if (stop.stop_requested())
                break;
            if (auto why = shareEnded()) {
                logLine(LogArea::main, "the desktop's screen share ended: " + *why);
                return end(Error{"the desktop stopped sharing the screen", Error::Kind::stopped});
            }
            double at = systemUptime();
            if (auto fresh = m_cast->stream->takeFresh()) {
                last = std::move(fresh->first);
                at = fresh->second;
            }
            at = std::max(at, lastAt + minimumStampGap);
            lastAt = at;
            if (!last.isEmpty())
                deliver(CapturedFrame{last, at}, next);
            else
                passEmpty(next);
        }
    }

    // Why the desktop's share has ended, once it has: the portal closed the session, or the
    // stream stopped.
    std::optional<std::string> shareEnded()
    {
        if (m_cast->portal->closedByDesktop())
            return "the portal closed the screen-sharing session";
        return m_cast->stream->broken();
    }

    std::shared_ptr<PortalCast> m_cast;
    std::optional<uint32_t> m_windowID;
};

std::string subjectWord(ScreenCastPortal::SourceType type) { return type == ScreenCastPortal::window ? "window" : "display"; }

class PortalDesktop final : public Desktop {
public:
    explicit PortalDesktop(uint32_t sourceTypes) : m_sourceTypes(sourceTypes) {}

    std::string name() const override { return "the desktop portal"; }

    std::vector<DesktopDisplay> displays() const override
    {
        std::lock_guard guard(m_lock);
        if (m_displays.empty()) {
            // The portal names no displays before a cast: a short one asks the desktop.
            if (auto cast = const_cast<PortalDesktop*>(this)->startCast(ScreenSubject::display(), false))
                m_displays.push_back({"screen", (*cast)->frame, true});
        }
        return m_displays;
    }

    std::vector<DesktopWindow> windows() const override { return {}; }
    std::optional<Rect> windowFrame(uint32_t) const override { return std::nullopt; }
    std::optional<Image> windowIcon(uint32_t, int) const override { return std::nullopt; }

    Result<Image> picture(const Rect&) const override
    {
        return fail("This desktop hands out the screen's picture only while Plim records it, so there is no "
                    "preview of it.",
            Error::Kind::refused);
    }

    Rect bounds() const override
    {
        auto all = displays();
        if (all.empty())
            return {};
        Rect bounds = all.front().frame;
        for (const auto& display : all) {
            const double x0 = std::min(bounds.x, display.frame.x), y0 = std::min(bounds.y, display.frame.y);
            const double x1 = std::max(bounds.maxX(), display.frame.maxX()), y1 = std::max(bounds.maxY(), display.frame.maxY());
            bounds = {x0, y0, x1 - x0, y1 - y0};
        }
        return bounds;
    }

    // The desktop's own dialog picks the window when the recording starts.
    Result<uint32_t> pickWindow() override
    {
        if (!(m_sourceTypes & ScreenCastPortal::window))
            return fail("This desktop's portal shares whole displays only, so Plim cannot record a single window "
                        "here. Record the display or an area instead.",
                Error::Kind::refused);
        return 0;
    }

    Result<std::unique_ptr<ScreenSource>> screen(const ScreenSubject& subject) override
    {
        if (subject.kind == ScreenSubject::Kind::device)
            return fail("A device subject reached the screen path.", Error::Kind::refused);
        if (subject.kind == ScreenSubject::Kind::window && !(m_sourceTypes & ScreenCastPortal::window))
            return fail("This desktop's portal shares whole displays only, so Plim cannot record a single window "
                        "here. Nothing was recorded. Record the display or an area instead.",
                Error::Kind::refused);
        auto cast = PLIM_TRY(startCast(subject, true));
        {
            std::lock_guard guard(m_lock);
            m_cast = cast;
        }
        std::optional<uint32_t> window;
        return std::unique_ptr<ScreenSource>(new PortalScreenSource(cast, window));
    }

    Result<DesktopInputs> inputs() override
    {
        std::shared_ptr<PortalCast> cast;
        {
            std::lock_guard guard(m_lock);
            cast = m_cast;
        }
        if (!cast || cast->cursor != ScreenCastPortal::metadata)
            return fail("This desktop's portal hands out no pointer position, only pictures with the pointer drawn "
                        "in, so the pointer is recorded in the picture, its track stays empty, and clicks and keys, "
                        "which would need its position, are not recorded.",
                Error::Kind::refused);
        auto pointer = std::make_shared<PortalPointer>(cast);
        // Clicks and keys from the input devices, placed where the stream's pointer is. The
        // stream is the layout: asking the desktop for its displays would start a second cast,
        // and with it the desktop's dialog when a window is recorded.
        LibinputOptions options;
        options.layout.push_back(cast->extent);
        options.keymap = compositorKeymap();
        options.clicksAt = pointer.get();
        auto devices = openLibinputInputs(options);
        if (!devices) {
            DesktopInputs inputs;
            inputs.pointer = pointer.get();
            inputs.owner = pointer;
            inputs.missing.push_back(devices.error().sentence);
            return inputs;
        }
        DesktopInputs inputs = std::move(*devices);
        inputs.pointer = pointer.get();
        inputs.owner = std::make_shared<std::pair<std::shared_ptr<void>, std::shared_ptr<PortalPointer>>>(
            std::move(inputs.owner), pointer);
        return inputs;
    }

private:
    // Runs a cast of `subject` until its first picture; `recording` casts give a failure the
    // words for a recording that never started.
    Result<std::shared_ptr<PortalCast>> startCast(const ScreenSubject& subject, bool recording)
    {
        const std::string nothing = recording ? " Nothing was recorded." : "";
        const auto type = subject.kind == ScreenSubject::Kind::window ? ScreenCastPortal::window : ScreenCastPortal::monitor;
        const char* tokenKey = type == ScreenCastPortal::window ? windowTokenKey : monitorTokenKey;
        SettingsStore& settings = FileSettingsStore::shared();
        auto portal = ScreenCastPortal::connect();
        if (!portal)
            return fail(portal.error().sentence + nothing, portal.error().kind);
        auto started = (*portal)->start(type, settings.string(tokenKey, ""));
        if (!started) {
            if (started.error().kind == Error::Kind::stopped)
                return fail(started.error().sentence + nothing + " Record again and choose a " + subjectWord(type)
                        + " in the dialog.",
                    Error::Kind::refused);
            return fail(started.error().sentence + nothing
                    + " Check that the desktop portal (xdg-desktop-portal and its backend for this desktop) is running.",
                started.error().kind);
        }
        ScreenCastPortal::Cast& shared = *started;
        if (!shared.restoreToken.empty())
            if (auto kept = settings.setValue(tokenKey, shared.restoreToken); !kept)
                logLine(LogArea::main, "the screen-sharing choice could not be kept (" + kept.error().sentence
                        + "); the desktop will ask again next time");
        auto cast = std::make_shared<PortalCast>();
        cast->portal = std::move(*portal);
        cast->cursor = shared.cursor;
        const ScreenCastPortal::Stream& stream = shared.streams.front();
        if (stream.position && type == ScreenCastPortal::monitor)
            cast->origin = *stream.position;

        std::optional<Rect> crop;
        if (subject.kind == ScreenSubject::Kind::area) {
            const Rect& area = subject.area;
            const double x0 = std::floor(area.x), y0 = std::floor(area.y);
            double x1 = std::floor(area.maxX()), y1 = std::floor(area.maxY());
            if (stream.size) {
                x1 = std::min(x1, cast->origin.x + stream.size->width);
                y1 = std::min(y1, cast->origin.y + stream.size->height);
            }
            if (x0 < cast->origin.x || y0 < cast->origin.y || !(x1 - x0 >= 2) || !(y1 - y0 >= 2)) {
                ::close(shared.pipeWireFd);
                char text[320];
                std::snprintf(text, sizeof text, "The area %g,%g %gx%g does not lie on the display the desktop shared, "
                    "so nothing was recorded. Pick an area on that display.", area.x, area.y, area.width, area.height);
                return fail(text, Error::Kind::refused);
            }
            cast->frame = {x0, y0, x1 - x0, y1 - y0};
            crop = Rect{x0 - cast->origin.x, y0 - cast->origin.y, x1 - x0, y1 - y0};
        }
        auto opened = PipeWireStream::open(shared.pipeWireFd, stream.node, crop, stream.size, type == ScreenCastPortal::window);
        if (!opened)
            return fail(opened.error().sentence + nothing, opened.error().kind);
        cast->stream = std::move(*opened);
        auto first = cast->stream->waitForPicture(systemUptime() + firstPictureWait);
        if (!first)
            return fail("The desktop stopped sharing the screen before its first picture (" + first.error().sentence + ")."
                    + nothing,
                Error::Kind::failed);
        if (!*first)
            return fail("The desktop shared the screen but sent no picture of it within ten seconds." + nothing
                    + " Check that PipeWire is running, then try again.",
                Error::Kind::failed);
        // A window's stream is larger than the window, whose part the stream's crop names:
        // the window at its first size is what is recorded.
        const Size pixels = type == ScreenCastPortal::window ? cast->stream->pictureSize() : cast->stream->pixelSize();
        const double scale = cast->stream->scale();
        const Size size = stream.size && type == ScreenCastPortal::monitor
            ? *stream.size
            : Size{pixels.width / scale, pixels.height / scale};
        cast->extent = {cast->origin.x, cast->origin.y, size.width, size.height};
        if (subject.kind != ScreenSubject::Kind::area)
            cast->frame = cast->extent;
        return cast;
    }

    mutable std::mutex m_lock; // guards the members below
    uint32_t m_sourceTypes = 0;
    mutable std::vector<DesktopDisplay> m_displays;
    std::shared_ptr<PortalCast> m_cast; // the last screen source's, for its pointer
};

} // namespace

Result<std::unique_ptr<Desktop>> createPortalDesktop()
{
    auto portal = PLIM_TRY(ScreenCastPortal::connect());
    if (!(portal->sourceTypes() & ScreenCastPortal::monitor))
        return fail("The desktop portal on this session shares no displays.", Error::Kind::refused);
    return std::unique_ptr<Desktop>(new PortalDesktop(portal->sourceTypes()));
}

} // namespace plim
