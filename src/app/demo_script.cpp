#include "app/demo_script.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace plim::demo {

namespace {

Script makeScript()
{
    Script s;
    s.duration = 20;
    // Three places where things happen: the note's text, the file list and the Save
    // button, with the pointer resting in between.
    s.clicks = {
        {2.4, 250, 214}, {3.1, 318, 236}, {3.8, 276, 262},
        {10.3, 980, 330}, {11.2, 992, 420}, {12.1, 975, 382},
        {15.6, 628, 124}, {16.4, 640, 128}, {17.2, 632, 122},
    };
    s.speech = {
        {0.6, "This is a short demo of Plim."},
        {4.4, "First a note is typed, then the file list scrolls."},
        {13.0, "Quiet stretches are sped up, and clicks get a closer look."},
    };
    s.typed = "Stage the demo: zooms, keycaps, a glide.";
    double t = 4.2;
    for (char c : s.typed) {
        s.typedAt.push_back(t);
        t += c == ' ' ? 0.11 : 0.075;
    }
    s.scrollStart = 10.45;
    s.scrollEnd = 12.0;
    s.scrollRows = 14;
    s.savedAt = 17.9;
    s.shortcuts = {{5500, "⌃B"}, {7300, "⌃⇧Z"}, {17800, "⌃S"}};
    return s;
}

struct Leg {
    double start, end, fromX, fromY, toX, toY;
};

} // namespace

const Script& script()
{
    static const Script s = makeScript();
    return s;
}

CursorTrack cursorTrack(const Script& s, double scale)
{
    // The pointer travels 0.6 s to each click and rests on it; a small drift while typing.
    std::vector<Leg> legs;
    double x = 640, y = 420;
    for (const auto& click : s.clicks) {
        legs.push_back({click.t - 0.7, click.t - 0.1, x, y, click.x, click.y});
        x = click.x;
        y = click.y;
    }
    CursorTrack track;
    track.displayWidth = displayWidth;
    track.displayHeight = displayHeight;
    track.scale = scale;
    const int samples = static_cast<int>(s.duration * 60);
    for (int i = 0; i <= samples; ++i) {
        double t = i / 60.0;
        double px = legs.front().fromX, py = legs.front().fromY;
        for (const auto& leg : legs) {
            if (t < leg.start)
                break;
            double u = std::min(1.0, (t - leg.start) / (leg.end - leg.start));
            double e = u * u * (3 - 2 * u);
            px = leg.fromX + (leg.toX - leg.fromX) * e;
            py = leg.fromY + (leg.toY - leg.fromY) * e;
        }
        track.samples.push_back(CursorSample{static_cast<int64_t>(std::llround(t * 1000)), roundToTenth(px),
            roundToTenth(py), 0});
    }
    for (const auto& click : s.clicks)
        track.clicks.push_back(ClickEvent{static_cast<int64_t>(std::llround(click.t * 1000)), click.x, click.y});
    // Samples taken within 1/30 s after any key press, plain typing too, carry the typing flag.
    std::vector<int64_t> presses;
    for (double at : s.typedAt)
        presses.push_back(std::llround(at * 1000));
    for (const auto& shortcut : s.shortcuts)
        presses.push_back(shortcut.t);
    for (auto& sample : track.samples)
        for (int64_t at : presses)
            if (sample.t >= at && sample.t - at < 34)
                sample.k = 1;
    return track;
}

KeystrokeTrack keystrokeTrack(const Script& s)
{
    // What a recording keeps: the shortcuts. The typed note is plain typing, which never
    // reaches the track.
    KeystrokeTrack keys;
    keys.events = s.shortcuts;
    std::stable_sort(keys.events.begin(), keys.events.end(), [](const KeyEvent& a, const KeyEvent& b) { return a.t < b.t; });
    return keys;
}

} // namespace plim::demo
