// Frames from a wlroots compositor through wlr-screencopy. A copy is always asked for: the
// next one as soon as the last is ready, into another shared-memory buffer, so every picture
// the compositor shows is copied (copy_with_damage: a still screen costs no copies). A
// filled buffer waits for its tick, which turns it into the recording's picture (the one
// copy, the output's transform undone) just before handing it on, as the X11 source copies
// at its tick. Ticks hand the pictures on in the order they were shown, one a tick,
// stamped with the instant the compositor showed them (shown_pictures.h); a tick that finds
// none hands on the last picture again, after waiting part of a period for a copy that was
// asked for only lately (the compositor may be about to show it). The compositor draws the
// pointer into the pictures unless the desktop tracks it for the cursor track (desktop_wlr.cpp).

#include "capture/wayland/desktop_wlr.h"
#include "capture/wayland/shown_pictures.h"
#include "capture/wayland/wayland_connection.h"

#include "base/clock.h"
#include "base/log.h"
#include "capture/ticking_screen_source.h"

#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace plim {

namespace {

constexpr const char* displayGone = "The recorded display was unplugged or switched off, so the recording ended. "
                                    "What was recorded so far is kept.";

class WlrScreenSource final : public TickingScreenSource {
    // Pictures the session may still hold; a backlog past the limit gets pictures of its own.
    static constexpr size_t poolLimit = 16;
    // Pictures shown but not yet handed on: enough to ride out a compositor whose pictures
    // come unevenly against the ticks; one that shows more than ticks come loses its oldest.
    static constexpr size_t waitingLimit = 3;
    // How many of the last copies' delays (from shown to ready here) bound the next one's.
    static constexpr size_t delaysKept = 32;

public:
    WlrScreenSource(std::unique_ptr<WaylandConnection> wayland, const WaylandConnection::Output& output,
        std::optional<Rect> region, Rect frame, std::shared_ptr<const std::atomic<bool>> drawPointer)
        : m_wayland(std::move(wayland)), m_output(output), m_region(region), m_frame(frame),
          m_drawPointer(std::move(drawPointer))
    {
    }
    ~WlrScreenSource() override
    {
        stop();
        m_copy.reset();
        m_buffer.reset();
        logLine(LogArea::main,
            "wlr-screencopy: " + std::to_string(m_copied) + " pictures from the compositor for "
                + std::to_string(deliveredFrames()) + " frames delivered: " + std::to_string(m_shown.fresh())
                + " as shown (one copy each), " + std::to_string(m_shown.repeated()) + " the picture before again, "
                + std::to_string(m_shown.passedOver())
                + " passed over unread (shown between ticks, more than the "
                  "frame rate takes)");
    }

    // The first picture, taken now, so the size is known and a broken compositor shows at once.
    Status prepare()
    {
        Image first = PLIM_TRY(takePicture(*m_wayland, m_output, m_region, true));
        m_scale = double(first.width) / m_frame.width;
        m_last = std::move(first);
        return {};
    }

    Rect frame() const override { return m_frame; }
    double scale() const override { return m_scale; }
    std::optional<uint32_t> windowID() const override { return std::nullopt; }

private:
    bool drawsPointer() const { return !m_drawPointer || m_drawPointer->load(); }

    bool copyNeedsUs() const
    {
        if (!m_copy)
            return false;
        auto state = m_copy->state();
        return (state == ScreenCopy::State::waiting && m_copy->layoutKnown()) || state == ScreenCopy::State::ready
            || state == ScreenCopy::State::failed;
    }

    // Moves the frame in flight on; a failure ends the recording.
    Status advanceCopy()
    {
        switch (m_copy->state()) {
        case ScreenCopy::State::waiting:
            if (!m_buffer && !m_spare.empty()) {
                m_buffer = std::move(m_spare.back());
                m_spare.pop_back();
            }
            return m_copy->copyWhenKnown(m_buffer, true);
        case ScreenCopy::State::ready: {
            Copied copied{std::move(m_buffer), m_copy->yInverted()};
            const double shownAt = m_copy->shownAt();
            m_delays[size_t(m_copied) % delaysKept] = std::max(0.0, systemUptime() - shownAt);
            PLIM_TRY(askForCopy());
            if (auto passed = m_shown.add(std::move(copied), shownAt))
                m_spare.push_back(std::move(passed->buffer));
            ++m_copied;
            m_failures = 0;
            return {};
        }
        case ScreenCopy::State::failed:
            if (m_wayland->isGone(m_output))
                return fail(displayGone, Error::Kind::missing);
            // A compositor that keeps refusing for two seconds has stopped handing out pictures.
            if (++m_failures * interval() > 2)
                return fail("Recording ended early because the Wayland compositor stopped handing out the screen "
                            "picture. What was recorded so far is kept.");
            // Asked again at the next tick.
            m_copy.reset();
            return {};
        case ScreenCopy::State::copying:
            return {};
        }
        return {};
    }

    Status askForCopy()
    {
        m_copy.reset();
        if (m_wayland->isGone(m_output))
            return fail(displayGone, Error::Kind::missing);
        m_copy = std::make_unique<ScreenCopy>(*m_wayland, m_output, m_region, drawsPointer());
        m_copyAskedAt = systemUptime();
        m_wayland->flush();
        return {};
    }

    void run(std::stop_token stop) override
    {
        if (!drawsPointer()) {
            // The first picture had the pointer drawn in; a still screen would show it on.
            auto bare = takePicture(*m_wayland, m_output, m_region, false);
            if (!bare)
                return end(bare.error());
            m_last = std::move(*bare);
        }
        if (auto asked = askForCopy(); !asked)
            return end(asked.error());
        double next = systemUptime();
        while (!stop.stop_requested()) {
            // A copy asked for within the last period may be a moment from ready: a tick with
            // nothing new waits for it up to half a period, as a late tick may.
            const bool soon = m_shown.empty() && m_copy && m_copyAskedAt > next - interval();
            auto woke = m_wayland->dispatchUntil(
                [&] { return stop.stop_requested() || copyNeedsUs(); }, soon ? next + interval() / 2 : next);
            if (!woke)
                return end(woke.error());
            if (stop.stop_requested())
                break;
            if (*woke) {
                if (auto moved = advanceCopy(); !moved)
                    return end(moved.error());
                if (m_shown.empty() || systemUptime() < next)
                    continue;
            }
            // The tick.
            if (!m_copy) {
                if (auto asked = askForCopy(); !asked)
                    return end(asked.error());
            }
            auto taken = m_shown.take(next, settled());
            if (taken.picture) {
                m_last = pictureFromBuffer(
                    *taken.picture->buffer, taken.picture->yInverted, m_output.transform, recycledImage());
                m_spare.push_back(std::move(taken.picture->buffer));
            }
            deliver(CapturedFrame{m_last, taken.at}, next);
        }
    }

    // The uptime before which every picture the compositor showed has reached us: the copy in
    // flight can only bring a later one, and none took longer than the recent copies.
    double settled() const
    {
        double slowest = 0;
        for (double delay : m_delays)
            slowest = std::max(slowest, delay);
        const double now = systemUptime() - slowest;
        return m_copy ? std::max(now, m_copyAskedAt) : now;
    }

    // A picture no one else holds any more, or a new one.
    Image recycledImage()
    {
        for (Image& image : m_pool)
            if (image.pixels.use_count() == 1)
                return image;
        Image image = Image::uninitialized(m_last.width, m_last.height);
        if (m_pool.size() < poolLimit)
            m_pool.push_back(image);
        return image;
    }

    std::unique_ptr<WaylandConnection> m_wayland;
    const WaylandConnection::Output& m_output;
    std::optional<Rect> m_region;
    Rect m_frame;
    std::shared_ptr<const std::atomic<bool>> m_drawPointer; // none: always drawn
    double m_scale = 1;
    std::unique_ptr<ShmBuffer> m_buffer;
    std::unique_ptr<ScreenCopy> m_copy;
    std::vector<Image> m_pool;
    Image m_last;
    // A filled buffer waiting for its tick.
    struct Copied {
        std::unique_ptr<ShmBuffer> buffer;
        bool yInverted = false;
    };
    ShownPictures<Copied> m_shown{waitingLimit};
    std::vector<std::unique_ptr<ShmBuffer>> m_spare; // buffers free for the next copies
    double m_copyAskedAt = 0;
    int64_t m_copied = 0;
    std::array<double, delaysKept> m_delays{}; // seconds from shown to ready, by copy
    int m_failures = 0;
};

std::string outputNames(const WaylandConnection& wayland)
{
    std::string names;
    for (const auto* output : wayland.outputs())
        names += (names.empty() ? "" : ", ") + output->name;
    return names;
}

} // namespace

Result<std::unique_ptr<ScreenSource>> createWlrScreenSource(const ScreenSubject& subject,
    std::shared_ptr<const std::atomic<bool>> drawPointer)
{
    if (subject.kind == ScreenSubject::Kind::device)
        return fail("A device subject reached the screen path.", Error::Kind::refused);
    if (subject.kind == ScreenSubject::Kind::window)
        return fail("Recording a single window on this Wayland desktop needs the desktop portal, which Plim "
                    "cannot use yet. Nothing was recorded. Record the display or an area instead.",
            Error::Kind::refused);
    auto opened = WaylandConnection::open();
    if (!opened)
        return fail(opened.error().sentence + " Nothing was recorded.", opened.error().kind);
    auto wayland = std::move(*opened);
    if (!wayland->screencopy())
        return fail("This Wayland compositor offers no wlr-screencopy, so Plim cannot read the screen. "
                    "Nothing was recorded.",
            Error::Kind::refused);
    auto outputs = wayland->outputs();
    if (outputs.empty())
        return fail("The Wayland compositor shows no display to record. Nothing was recorded.", Error::Kind::missing);
    const WaylandConnection::Output* output = outputs.front();
    std::optional<Rect> region;
    Rect frame;
    if (subject.kind == ScreenSubject::Kind::display) {
        if (!subject.displayName.empty())
            output = wayland->output(subject.displayName);
        if (!output)
            return fail("There is no display called \"" + subject.displayName + "\" to record. Nothing was recorded. "
                    "Pick one of: " + outputNames(*wayland) + ".",
                Error::Kind::missing);
        frame = output->frame;
    } else {
        // An area is read from the display under its top-left corner, clipped to it.
        const Rect& area = subject.area;
        output = wayland->outputAt(std::floor(area.x), std::floor(area.y));
        if (output) {
            const Rect& o = output->frame;
            double x0 = std::floor(area.x), y0 = std::floor(area.y);
            double x1 = std::min(o.maxX(), std::floor(area.maxX())), y1 = std::min(o.maxY(), std::floor(area.maxY()));
            frame = {x0, y0, std::max(0.0, x1 - x0), std::max(0.0, y1 - y0)};
        }
        if (!output || !(frame.width >= 2) || !(frame.height >= 2)) {
            char text[256];
            std::snprintf(text, sizeof text, "The area %g,%g %gx%g does not start on a display, so nothing was "
                "recorded. Pick an area on the screen.", area.x, area.y, area.width, area.height);
            return fail(text, Error::Kind::refused);
        }
        region = Rect{frame.x - output->frame.x, frame.y - output->frame.y, frame.width, frame.height};
    }
    const WaylandConnection::Output& chosen = *output;
    auto source = std::make_unique<WlrScreenSource>(std::move(wayland), chosen, region, frame, std::move(drawPointer));
    PLIM_TRY(source->prepare());
    return std::unique_ptr<ScreenSource>(std::move(source));
}

} // namespace plim
