// The wlroots desktop: its outputs over one query connection and screencopy pictures. It
// lists no windows (wlr-screencopy reads outputs only). Clicks, keys and the pointer come
// from the kernel's input devices through libinput; the pointer goes to the cursor track
// (and out of the picture) when its place at the start is found by comparing pictures
// taken with and without it, else the compositor keeps drawing it.

#include "capture/wayland/desktop_wlr.h"

#include "capture/linux_input/input_events.h"
#include "capture/linux_input/input_libinput.h"
#include "capture/wayland/keymap_wayland.h"
#include "capture/wayland/wayland_connection.h"

#include <cmath>
#include <mutex>

namespace plim {

namespace {

constexpr const char* windowsNeedPortal = "Recording a single window on this Wayland desktop needs the desktop portal, "
                                          "whose window sharing wlr-screencopy does not offer. Record the display or an area "
                                          "instead.";

class WlrDesktop final : public Desktop {
public:
    explicit WlrDesktop(std::unique_ptr<WaylandConnection> wayland) : m_wayland(std::move(wayland)) {}

    std::string name() const override { return m_wayland->name(); }

    std::vector<DesktopDisplay> displays() const override
    {
        std::lock_guard guard(m_lock);
        std::vector<DesktopDisplay> result;
        (void)m_wayland->roundtrip();
        for (const auto* output : m_wayland->outputs())
            result.push_back({output->name, output->frame, result.empty()});
        return result;
    }

    std::vector<DesktopWindow> windows() const override { return {}; }
    std::optional<Rect> windowFrame(uint32_t) const override { return std::nullopt; }
    std::optional<Image> windowIcon(uint32_t, int) const override { return std::nullopt; }

    Result<Image> picture(const Rect& area) const override
    {
        std::lock_guard guard(m_lock);
        const auto* output = m_wayland->outputAt(std::floor(area.x), std::floor(area.y));
        if (!output)
            return fail("That part of the screen is on no display, so there is no picture of it.", Error::Kind::missing);
        const Rect& o = output->frame;
        Rect region{area.x - o.x, area.y - o.y, std::min(area.maxX(), o.maxX()) - area.x,
            std::min(area.maxY(), o.maxY()) - area.y};
        if (!(region.width >= 1) || !(region.height >= 1))
            return fail("That part of the screen is too small to take a picture of.", Error::Kind::refused);
        return takePicture(*m_wayland, *output, region, false);
    }

    Rect bounds() const override
    {
        std::lock_guard guard(m_lock);
        return m_wayland->bounds();
    }

    Result<uint32_t> pickWindow() override { return fail(windowsNeedPortal, Error::Kind::refused); }

    Result<std::unique_ptr<ScreenSource>> screen(const ScreenSubject& subject) override
    {
        return createWlrScreenSource(subject, m_drawPointer);
    }

    Result<DesktopInputs> inputs() override
    {
        LibinputOptions options;
        if (auto refusal = inputDevicesRefusal(options.devices))
            return fail(*refusal, Error::Kind::refused);
        {
            std::lock_guard guard(m_lock);
            (void)m_wayland->roundtrip();
            for (const auto* output : m_wayland->outputs()) {
                options.layout.push_back(output->frame);
                if (!options.pointer)
                    options.pointer = pointerOn(*output);
            }
        }
        options.keymap = compositorKeymap();
        auto inputs = PLIM_TRY(openLibinputInputs(options));
        if (options.pointer)
            m_drawPointer->store(false);
        else
            inputs.pointer = nullptr;
        return inputs;
    }

private:
    // The pointer in global points when the compositor shows it on `output`.
    std::optional<Point> pointerOn(const WaylandConnection::Output& output) const
    {
        auto bare = takePicture(*m_wayland, output, std::nullopt, false);
        auto drawn = takePicture(*m_wayland, output, std::nullopt, true);
        auto bareAgain = takePicture(*m_wayland, output, std::nullopt, false);
        if (!bare || !drawn || !bareAgain)
            return std::nullopt;
        auto at = pointerInPictures(*drawn, *bare, *bareAgain);
        if (!at)
            return std::nullopt;
        double perPixel = output.frame.width / drawn->width;
        return Point{output.frame.x + at->x * perPixel, output.frame.y + at->y * perPixel};
    }

    std::shared_ptr<std::atomic<bool>> m_drawPointer = std::make_shared<std::atomic<bool>>(true);

    mutable std::mutex m_lock; // the query connection serves one caller at a time
    std::unique_ptr<WaylandConnection> m_wayland;
};

} // namespace

Result<std::unique_ptr<Desktop>> createWlrDesktop()
{
    auto wayland = PLIM_TRY(WaylandConnection::open());
    if (!wayland->screencopy())
        return fail("The Wayland compositor at \"" + wayland->name() + "\" offers no wlr-screencopy.", Error::Kind::refused);
    if (!wayland->shm())
        return fail("The Wayland compositor at \"" + wayland->name() + "\" offers no shared memory (wl_shm).",
            Error::Kind::refused);
    return std::unique_ptr<Desktop>(new WlrDesktop(std::move(wayland)));
}

} // namespace plim
