// Times the planning path of a one-hour plim: reading its cursor track, the automatic
// edit, and one time remap and one zoom state per output frame at 60 fps.

#include "capture/cursor_track.h"
#include "capture/keystroke_track.h"
#include "plan/auto_edit.h"
#include "plan/time_remap.h"
#include "plan/zoom_curve.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>

using namespace plim;
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// One hour at 60 Hz: work in bursts with rests between them, a click every few seconds
// while working, and typing now and then.
void makeHour(CursorTrack& track, KeystrokeTrack& keys)
{
    track.displayX = 0;
    track.displayY = 0;
    track.displayWidth = 1920;
    track.displayHeight = 1080;
    track.scale = 2;
    std::mt19937 random(7);
    std::uniform_real_distribution<double> unit(0, 1);
    const int samples = 216000;
    track.samples.reserve(samples);
    double x = 960, y = 540, targetX = x, targetY = y;
    double nextClick = 2.0;
    for (int i = 0; i < samples; ++i) {
        double t = i / 60.0;
        double minute = std::fmod(t, 60.0);
        bool resting = minute >= 40 && minute < 52; // twelve quiet seconds a minute
        bool typing = minute >= 20 && minute < 26;
        if (!resting && !typing) {
            if (std::hypot(targetX - x, targetY - y) < 5) {
                targetX = 100 + unit(random) * 1720;
                targetY = 100 + unit(random) * 880;
            }
            x += (targetX - x) * 0.08;
            y += (targetY - y) * 0.08;
        }
        auto ms = static_cast<int64_t>(i * 1000.0 / 60.0);
        int k = typing && (i % 9 == 0 || i % 9 == 1) ? 1 : 0;
        track.samples.push_back({ms, roundToTenth(x), roundToTenth(y), k});
        if (!resting && !typing && t >= nextClick) {
            track.clicks.push_back({ms, x, y});
            nextClick = t + 1.5 + unit(random) * 4.0;
        }
        if (typing && i % 240 == 0)
            keys.events.push_back({ms, "⌘S"});
    }
}

} // namespace

int main()
{
    fs::path folder = fs::temp_directory_path() / ("plim-plan-bench-" + std::to_string(::getpid()));
    fs::create_directories(folder);
    fs::path movie = folder / "Bench.mov";

    CursorTrack track;
    KeystrokeTrack keys;
    auto t0 = Clock::now();
    makeHour(track, keys);
    std::printf("built track: %zu samples, %zu clicks, %zu key events (%.1f ms)\n", track.samples.size(),
        track.clicks.size(), keys.events.size(), millisecondsSince(t0));

    t0 = Clock::now();
    if (auto written = track.write(movie); !written) {
        std::fprintf(stderr, "%s\n", written.error().sentence.c_str());
        fs::remove_all(folder);
        return 1;
    }
    std::printf("write track: %.1f ms (%.1f MB)\n", millisecondsSince(t0),
        static_cast<double>(fs::file_size(CursorTrack::fileBeside(movie))) / 1e6);

    const int rounds = 5;
    double readBest = 1e300, readTotal = 0;
    CursorTrack read;
    for (int r = 0; r < rounds; ++r) {
        t0 = Clock::now();
        auto result = CursorTrack::read(movie);
        double ms = millisecondsSince(t0);
        if (!result) {
            std::fprintf(stderr, "%s\n", result.error().sentence.c_str());
            fs::remove_all(folder);
            return 1;
        }
        read = std::move(*result);
        readBest = std::min(readBest, ms);
        readTotal += ms;
    }
    std::printf("read track: best %.1f ms, mean %.1f ms over %d reads (target under 150 ms)%s\n", readBest,
        readTotal / rounds, rounds, read == track ? "" : "  [read back differs from what was written]");

    const double duration = 3600;
    double editBest = 1e300, editTotal = 0, performanceBest = 1e300;
    AutoEdit::Proposal proposal;
    for (int r = 0; r < rounds; ++r) {
        t0 = Clock::now();
        AutoEdit::Performance performance = AutoEdit::performance(read, &keys, {}, duration);
        performanceBest = std::min(performanceBest, millisecondsSince(t0));
        proposal = AutoEdit::make(performance);
        double ms = millisecondsSince(t0);
        editBest = std::min(editBest, ms);
        editTotal += ms;
    }
    std::printf("automatic edit: best %.1f ms (of which performance %.1f ms), mean %.1f ms (target under 100 ms)\n",
        editBest, performanceBest, editTotal / rounds);
    std::printf("  %s\n", AutoEdit::summary(proposal, duration, true, false).c_str());
    std::printf("  %zu skips, %zu zooms, trim %.2f..%.2f\n", proposal.skips.size(), proposal.zooms.size(),
        proposal.trim.in, proposal.trim.out);

    t0 = Clock::now();
    EditPlan plan = AutoEdit::plan(proposal);
    TimeRemap remap = TimeRemap::of(plan, duration);
    ZoomCurve curve(plan.zooms, ZoomStyle::smooth);
    std::printf("plan, remap (%zu steps) and curve: %.2f ms\n", remap.steps().size(), millisecondsSince(t0));

    double outputDuration = remap.outputDuration(duration);
    auto frames = static_cast<int64_t>(std::floor(outputDuration * 60));
    double checksum = 0;
    t0 = Clock::now();
    for (int64_t f = 0; f < frames; ++f)
        checksum += remap.input(static_cast<double>(f) / 60);
    double remapMs = millisecondsSince(t0);
    t0 = Clock::now();
    for (int64_t f = 0; f < frames; ++f) {
        ZoomState state = curve.state(remap.input(static_cast<double>(f) / 60));
        checksum += state.scale + state.centerX;
    }
    double bothMs = millisecondsSince(t0);
    std::printf("per output frame, %lld frames (%.1f min of output):\n", static_cast<long long>(frames),
        outputDuration / 60);
    std::printf("  remap: %.1f ms, %.1f ns per call\n", remapMs, remapMs * 1e6 / static_cast<double>(frames));
    std::printf("  remap + zoom state: %.1f ms, %.1f ns per frame (zoom state alone ~%.1f ns)\n", bothMs,
        bothMs * 1e6 / static_cast<double>(frames), (bothMs - remapMs) * 1e6 / static_cast<double>(frames));
    std::printf("  (checksum %.3f)\n", checksum);

    fs::remove_all(folder);
    return 0;
}
