// The X11 desktop: its RandR outputs and windows over one query connection, the MIT-SHM
// screen source and the XInput 2 pointer, click and key sources, each on connections of
// their own.

#include "capture/x11/desktop_x11.h"

#include "capture/x11/x11_connection.h"
#include "capture/x11/x11_input.h"

namespace plim {

namespace {

// The inputs behind the recorders' seams, over one X11Input.
struct X11Inputs {
    std::unique_ptr<X11Input> input;
    X11PointerSource pointer;
    X11ClickSource clicks;
    X11KeySource keys;
    explicit X11Inputs(std::unique_ptr<X11Input> in) : input(std::move(in)), pointer(*input), clicks(input->clickHandlers()),
          keys(input->keyHandlers())
    {
    }
};

class X11Desktop final : public Desktop {
public:
    explicit X11Desktop(std::unique_ptr<X11Connection> x11) : m_x11(std::move(x11)) {}

    std::string name() const override { return m_x11->displayName(); }

    std::vector<DesktopDisplay> displays() const override
    {
        std::vector<DesktopDisplay> result;
        for (auto& output : m_x11->outputs())
            result.push_back({output.name, output.frame, output.primary});
        return result;
    }

    std::vector<DesktopWindow> windows() const override { return m_x11->windows(); }
    std::optional<Rect> windowFrame(uint32_t id) const override { return m_x11->windowFrame(id); }
    std::optional<Image> windowIcon(uint32_t id, int size) const override { return m_x11->windowIcon(id, size); }
    Result<Image> picture(const Rect& area) const override { return m_x11->picture(area); }

    Rect bounds() const override
    {
        Size size = m_x11->rootSize();
        return {0, 0, size.width, size.height};
    }

    Result<uint32_t> pickWindow() override { return m_x11->pickWindow(); }

    Result<std::unique_ptr<ScreenSource>> screen(const ScreenSubject& subject) override
    {
        return createX11ScreenSource(subject, m_x11->displayName());
    }

    Result<DesktopInputs> inputs() override
    {
        auto input = PLIM_TRY(X11Input::open(m_x11->displayName()));
        auto owner = std::make_shared<X11Inputs>(std::move(input));
        DesktopInputs inputs;
        inputs.pointer = &owner->pointer;
        inputs.keyActivity = &owner->pointer;
        inputs.windowFrames = &owner->pointer;
        inputs.clicks = &owner->clicks;
        inputs.keys = &owner->keys;
        inputs.owner = std::move(owner);
        return inputs;
    }

private:
    std::unique_ptr<X11Connection> m_x11; // queries only
};

} // namespace

Result<std::unique_ptr<Desktop>> createX11Desktop(const std::optional<std::string>& display)
{
    auto x11 = PLIM_TRY(X11Connection::open(display));
    return std::unique_ptr<Desktop>(new X11Desktop(std::move(x11)));
}

} // namespace plim
