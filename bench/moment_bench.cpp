// Times the reframe path of a one-hour plim: writing and reading its tracks, the automatic
// edit, smoothing the pointer, and one stage moment per output frame at 60 fps.

#include "base/files.h"
#include "capture/capture.h"
#include "plan/plan.h"
#include "stage/stage.h"

#include "stopwatch.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>

using namespace plim;
namespace fs = std::filesystem;
using plim::bench::millisecondsSince;
using plim::bench::Steady;

namespace {

// One hour at 60 Hz on a 1920 x 1080 display: the pointer glides between targets, rests
// twelve seconds a minute, types for six (shortcuts every few seconds), and clicks every
// 1.5 to 5.5 seconds while moving.
void makeHour(CursorTrack& track, KeystrokeTrack& keys)
{
    track.displayWidth = 1920;
    track.displayHeight = 1080;
    track.scale = 2;
    std::mt19937 random(11);
    std::uniform_real_distribution<double> unit(0, 1);
    const int samples = 216000;
    track.samples.reserve(samples);
    double x = 960, y = 540, targetX = x, targetY = y, nextClick = 2.0;
    for (int i = 0; i < samples; ++i) {
        double t = i / 60.0;
        double second = std::fmod(t, 60.0);
        bool resting = second >= 40 && second < 52;
        bool typing = second >= 20 && second < 26;
        if (!resting && !typing) {
            if (std::hypot(targetX - x, targetY - y) < 5)
                targetX = 100 + unit(random) * 1720, targetY = 100 + unit(random) * 880;
            x += (targetX - x) * 0.08;
            y += (targetY - y) * 0.08;
        }
        auto ms = static_cast<int64_t>(i * 1000.0 / 60.0);
        track.samples.push_back({ms, roundToTenth(x), roundToTenth(y), typing && i % 9 < 2 ? 1 : 0});
        if (!resting && !typing && t >= nextClick) {
            track.clicks.push_back({ms, x, y});
            nextClick = t + 1.5 + unit(random) * 4.0;
        }
        if (typing && i % 150 == 0)
            keys.events.push_back({ms, i % 300 == 0 ? "⌘S" : "⏎"});
    }
}

int giveUp(const fs::path& folder, const std::string& sentence)
{
    std::fprintf(stderr, "%s\n", sentence.c_str());
    fs::remove_all(folder);
    return 1;
}

} // namespace

int main()
{
    fs::path folder = fs::temp_directory_path() / ("plim-moment-bench-" + std::to_string(::getpid()));
    fs::create_directories(folder);
    fs::path movie = folder / "Bench.mov";
    const double duration = 3600;

    CursorTrack built;
    KeystrokeTrack builtKeys;
    auto t0 = Steady::now();
    makeHour(built, builtKeys);
    std::printf("built track: %zu samples, %zu clicks, %zu key events (%.1f ms)\n", built.samples.size(),
        built.clicks.size(), builtKeys.events.size(), millisecondsSince(t0));

    t0 = Steady::now();
    if (auto written = built.write(movie); !written)
        return giveUp(folder, written.error().sentence);
    if (auto written = builtKeys.write(movie); !written)
        return giveUp(folder, written.error().sentence);
    std::printf("write tracks: %.1f ms\n", millisecondsSince(t0));

    t0 = Steady::now();
    auto read = CursorTrack::read(movie);
    if (!read)
        return giveUp(folder, read.error().sentence);
    auto keysRead = KeystrokeTrack::read(movie);
    if (!keysRead)
        return giveUp(folder, keysRead.error().sentence);
    std::optional<KeystrokeTrack> keys = std::move(keysRead->value);
    const double readMS = millisecondsSince(t0); // before the comparison below
    const CursorTrack& track = read->value;
    std::printf("read tracks: %.1f ms%s (target 150, aim under 50)\n", readMS,
        track == built ? "" : "  [differs from what was written]");
    t0 = Steady::now();
    auto bytes = readFileBytes(CursorTrack::fileBeside(movie));
    const double fileMS = millisecondsSince(t0);
    t0 = Steady::now();
    auto again = CursorTrack::read(movie);
    std::printf("  of which reading the %.1f MB file: %.1f ms; the cursor track read again: %.1f ms\n",
        bytes ? static_cast<double>(bytes->size()) / 1e6 : 0.0, fileMS, millisecondsSince(t0));

    t0 = Steady::now();
    AutoEdit::Proposal proposal = AutoEdit::make(AutoEdit::performance(track, &*keys, {}, duration));
    EditPlan plan = AutoEdit::plan(proposal);
    // A few hand edits so masks and transitions are asked for too.
    plan.masks.push_back(MaskRegion{"M1", 0.1, 0.1, 0.2, 0.1, 100, 900});
    plan.masks.push_back(MaskRegion{"M2", 0.6, 0.7, 0.2, 0.1, 1800, 2400});
    plan.cuts.push_back(CutRange{"C1", 1200, 1230, TransitionSpec{}});
    plan.fadeIn = TransitionSpec{};
    plan.fadeOut = TransitionSpec{};
    std::printf("automatic edit: %.1f ms (%zu skips, %zu zooms)\n", millisecondsSince(t0), plan.skips.size(),
        plan.zooms.size());

    std::vector<RecordedMomentSource::CaptionCue> captions;
    for (double s = 0; s < duration; s += 3)
        captions.push_back({"a caption line", s, s + 2.5});

    t0 = Steady::now();
    CursorSmoother smoother(track, duration);
    std::printf("smoother alone: %.1f ms (%zu entries)\n", millisecondsSince(t0), smoother.size());
    t0 = Steady::now();
    RecordedMomentSource source =
        RecordedMomentSource::forPlim(track, *keys, plan, StageSpec{}, duration, std::move(captions));
    std::printf("moment source (smoother, beats, curve): %.1f ms\n", millisecondsSince(t0));

    TimeRemap remap = TimeRemap::of(plan, duration);
    auto frames = static_cast<int64_t>(std::floor(remap.outputDuration(duration) * 60));
    std::vector<double> times(static_cast<size_t>(frames) + 1);
    for (int64_t f = 0; f <= frames; ++f)
        times[static_cast<size_t>(f)] = remap.input(static_cast<double>(f) / 60);

    double checksum = 0;
    size_t clicks = 0, keycaps = 0, captioned = 0;
    t0 = Steady::now();
    for (int64_t f = 0; f < frames; ++f) {
        double t = times[static_cast<size_t>(f)];
        StageMoment m = source.moment(t, f > 0 ? t - times[static_cast<size_t>(f - 1)] : 1.0 / 60);
        checksum += m.zoom.scale + (m.cursor ? m.cursor->x + m.cursor->alpha : 0);
        clicks += m.clicks.size();
        keycaps += m.keycaps.size();
        captioned += m.caption ? 1 : 0;
    }
    double inOrderMs = millisecondsSince(t0);
    std::printf("moments in order: %lld frames (%.1f min of output) in %.1f ms: %.3f us per moment (target under 2)\n",
        static_cast<long long>(frames), static_cast<double>(frames) / 3600, inOrderMs,
        inOrderMs * 1e3 / static_cast<double>(frames));
    std::printf("  %zu clicks, %zu keycaps, %zu captioned frames shown\n", clicks, keycaps, captioned);

    std::mt19937 random(5);
    std::uniform_real_distribution<double> anyTime(0, duration);
    const int randomCount = 200000;
    t0 = Steady::now();
    for (int i = 0; i < randomCount; ++i) {
        StageMoment m = source.moment(anyTime(random), 1.0 / 60);
        checksum += m.zoom.centerX + static_cast<double>(m.clicks.size());
    }
    double randomMs = millisecondsSince(t0);
    std::printf("moments in random order: %d in %.1f ms: %.3f us per moment\n", randomCount, randomMs,
        randomMs * 1e3 / randomCount);
    std::printf("  (checksum %.3f)\n", checksum);

    fs::remove_all(folder);
    return 0;
}
