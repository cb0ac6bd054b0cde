#pragma once
// The demo's synthetic desktop, drawn with cairo and Pango: a top bar, a note being typed
// into, a file list that scrolls and a "saved" notice. Frames are asked for in time order;
// each repaints only the parts of the picture that changed since the one before.

#include "app/demo_script.h"
#include "base/image.h"

#include <memory>

namespace plim::demo {

class Desktop {
public:
    // A picture of width × height pixels over the 1280 × 800 point display.
    Desktop(const Script& script, int width, int height);
    ~Desktop();
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    // The desktop at t seconds; valid until the next call.
    const Image& frameAt(double t);

    // Share of the picture's pixels repainted by the last call (1 for the first).
    double lastRepaintedShare() const { return m_lastShare; }

private:
    struct State;
    struct Painter;
    State stateAt(double t) const;

    const Script& m_script;
    Image m_image;
    std::unique_ptr<Painter> m_painter;
    std::unique_ptr<State> m_shown;
    double m_lastShare = 0;
};

} // namespace plim::demo
