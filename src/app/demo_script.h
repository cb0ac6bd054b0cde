#pragma once
// The demo plim's script: what happens on the synthetic desktop and when. Positions are
// points of a 1280 × 800 display; the picture is drawn at any pixel size over it.

#include "capture/cursor_track.h"
#include "capture/keystroke_track.h"

#include <string>
#include <vector>

namespace plim::demo {

inline constexpr double displayWidth = 1280;
inline constexpr double displayHeight = 800;

struct Click {
    double t, x, y;
};

struct SpokenLine {
    double t; // seconds from the start of the movie
    std::string text;
};

struct Script {
    double duration = 20;
    std::vector<Click> clicks;
    std::vector<SpokenLine> speech;
    // Typing into the note: the text and the instant each of its characters appears.
    std::string typed;
    std::vector<double> typedAt;
    double scrollStart = 0, scrollEnd = 0; // the file list scrolls between these
    double scrollRows = 0;                 // rows it scrolls by
    double savedAt = 0;                    // the "saved" notice appears
    std::vector<KeyEvent> shortcuts;
};

const Script& script();

// The tracks a recorder would have written while the script played on a display drawn
// `scale` pixels per point.
CursorTrack cursorTrack(const Script& script, double scale);
KeystrokeTrack keystrokeTrack(const Script& script);

} // namespace plim::demo
