#include "app/demo_plim.h"

#include "capture/capture.h"

#include <cmath>

namespace plim {

namespace {

struct Leg {
    double start, end;       // seconds
    double fromX, fromY, toX, toY;
};

// Where the pointer is at t: eased along the leg that holds t, resting between legs.
CursorSample sampleAt(const std::vector<Leg>& legs, double t)
{
    double x = legs.front().fromX, y = legs.front().fromY;
    for (auto& leg : legs) {
        if (t < leg.start)
            break;
        double u = std::min(1.0, (t - leg.start) / (leg.end - leg.start));
        double e = u * u * (3 - 2 * u);
        x = leg.fromX + (leg.toX - leg.fromX) * e;
        y = leg.fromY + (leg.toY - leg.fromY) * e;
    }
    return CursorSample{static_cast<int64_t>(std::llround(t * 1000)), roundToTenth(x), roundToTenth(y), 0};
}

} // namespace

Result<std::filesystem::path> writeDemoPlim(const std::filesystem::path& folder)
{
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    if (ec)
        return fail("Plim could not make the folder " + folder.string() + " (" + ec.message()
            + "). Nothing was written; choose a folder you can write to.");
    auto movie = folder / "Demo.mov";

    // Two minutes on a 1920x1080 display: a slow start, clicks in three places, a long
    // idle stretch, typing, and a tail with nothing happening. Before each click the
    // pointer travels to its target for 0.7 s.
    const double duration = 120;
    struct Click {
        double t, x, y;
    };
    const std::vector<Click> clicks = {
        {9.0, 310, 205}, {10.5, 335, 228}, {12.0, 318, 240}, {13.2, 342, 212},
        {17.0, 1510, 805}, {18.4, 1548, 822}, {20.0, 1525, 840}, {21.5, 1560, 812}, {23.0, 1538, 830},
        {79.0, 1205, 298}, {80.5, 1228, 318}, {82.0, 1212, 330},
    };
    std::vector<Leg> legs;
    double x = 960, y = 540;
    for (auto& click : clicks) {
        legs.push_back({click.t - 0.8, click.t - 0.1, x, y, click.x, click.y});
        x = click.x;
        y = click.y;
    }
    legs.push_back({60, 61, x, y, 900, 600});

    CursorTrack track;
    track.displayWidth = 1920;
    track.displayHeight = 1080;
    track.scale = 2;
    for (int i = 0; i <= static_cast<int>(duration * 60); ++i)
        track.samples.push_back(sampleAt(legs, i / 60.0));
    for (auto& click : clicks)
        track.clicks.push_back(ClickEvent{static_cast<int64_t>(click.t * 1000), click.x, click.y});
    track.marks.push_back(Mark{60000});

    KeystrokeTrack keys;
    const char* typed = "Hello from Plim";
    double t = 62;
    for (const char* c = typed; *c; ++c, t += 0.18)
        if (*c != ' ')
            keys.events.push_back(KeyEvent{static_cast<int64_t>(t * 1000), std::string(1, static_cast<char>(std::toupper(*c)))});
    keys.events.push_back(KeyEvent{static_cast<int64_t>((t + 0.6) * 1000), "⌘S"});
    // Samples taken while typing carry the typing flag.
    for (auto& s : track.samples)
        if (s.t >= 62000 && s.t <= static_cast<int64_t>((t + 0.7) * 1000))
            s.k = 1;

    PLIM_TRY(track.write(movie));
    PLIM_TRY(keys.write(movie));
    return movie;
}

} // namespace plim
