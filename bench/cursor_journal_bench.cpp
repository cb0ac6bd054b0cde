// The cursor recorder's poll thread over one hour of samples (216,000 at 60 Hz, polled as
// fast as it goes) while the journal thread appends what is new every 60 samples (one
// second of recording; the poll waits, untimed, when the journal falls a second behind, as
// it never would in real time): the poll's worst stall, against what an interim rewrite
// of the whole track on the poll thread used to cost at the end of such an hour.

#include "capture/capture.h"

#include <algorithm>
#include <atomic>
#include "stopwatch.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace plim;
namespace fs = std::filesystem;
using plim::bench::millisecondsSince;
using plim::bench::Steady;

namespace {

// A pointer circling the display; the recorder only asks where it is.
class CirclingPointer final : public PointerSource {
public:
    std::atomic<int> tick{0};
    std::optional<Point> position() override
    {
        double a = tick.load() / 90.0;
        return Point{960 + 700 * std::cos(a), 540 + 400 * std::sin(a)};
    }
};

} // namespace

int main()
{
    char pattern[] = "/tmp/plim-journal-bench-XXXXXX";
    if (!mkdtemp(pattern)) {
        std::perror("mkdtemp");
        return 1;
    }
    const fs::path folder = pattern, movie = folder / "B.mov";

    const int samples = 216000, perSecond = 60;

    // The same polls without a journal: what this machine's scheduler alone costs.
    double baselineWorst = 0;
    {
        ManualClock clock(100.0);
        CirclingPointer pointer;
        CursorRecorder recorder({{0, 0, 1920, 1080}, 2}, std::nullopt, {&pointer}, clock);
        recorder.start(CursorRecorder::Polling::manual);
        for (int i = 0; i < samples; ++i) {
            clock.set(100.0 + i / double(perSecond));
            pointer.tick = i;
            auto t0 = Steady::now();
            recorder.pollOnce();
            baselineWorst = std::max(baselineWorst, millisecondsSince(t0));
        }
    }

    ManualClock clock(100.0);
    CirclingPointer pointer;
    CursorRecorder recorder({{0, 0, 1920, 1080}, 2}, std::nullopt, {&pointer}, clock);
    recorder.start(CursorRecorder::Polling::manual);
    recorder.setFlushMovie(movie);

    std::atomic<int> polled{0}, journaledUpTo{0};
    std::atomic<bool> done{false};
    int appends = 0;
    double worstAppend = 0;
    std::thread journal([&] {
        int journaled = 0;
        while (!done.load()) {
            if (polled.load() < journaled + perSecond) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                continue;
            }
            journaled = polled.load();
            auto t0 = Steady::now();
            if (auto appended = recorder.journalOnce(); !appended)
                std::fprintf(stderr, "%s\n", appended.error().sentence.c_str());
            worstAppend = std::max(worstAppend, millisecondsSince(t0));
            ++appends;
            journaledUpTo = journaled;
        }
    });

    std::vector<double> stalls;
    stalls.reserve(samples);
    auto start = Steady::now();
    for (int i = 0; i < samples; ++i) {
        if (i % perSecond == 0)
            while (journaledUpTo.load() < i - perSecond)
                std::this_thread::sleep_for(std::chrono::microseconds(200));
        clock.set(100.0 + i / double(perSecond));
        pointer.tick = i;
        auto t0 = Steady::now();
        recorder.pollOnce();
        stalls.push_back(millisecondsSince(t0));
        polled = i + 1;
    }
    double total = millisecondsSince(start);
    done = true;
    journal.join();

    auto t0 = Steady::now();
    CursorTrack track = recorder.stop();
    double stopMS = millisecondsSince(t0);
    auto journalBytes = fs::file_size(CursorTrack::journalBeside(movie));
    t0 = Steady::now();
    auto rebuilt = CursorTrack::read(movie);
    double foldMS = millisecondsSince(t0);
    t0 = Steady::now();
    auto written = track.write(movie);
    double finalMS = millisecondsSince(t0);

    // What the old interim flush did on the poll thread at the end of the hour.
    t0 = Steady::now();
    auto rewritten = track.write(folder / "Old.mov");
    double rewriteMS = millisecondsSince(t0);

    std::sort(stalls.begin(), stalls.end());
    std::printf("one hour of samples: %d polls (%.1f ms of wall time) while %d journal appends ran\n", samples,
        total, appends);
    std::printf("poll thread worst stall: %.3f ms (99.9th percentile %.4f ms, median %.4f ms)\n", stalls.back(),
        stalls[stalls.size() * 999 / 1000], stalls[stalls.size() / 2]);
    std::printf("the same polls without a journal: worst %.3f ms\n", baselineWorst);
    std::printf("journal append (journal thread): worst %.2f ms; journal %.1f MB\n", worstAppend,
        static_cast<double>(journalBytes) / 1e6);
    std::printf("stop (journals the rest): %.2f ms; rebuild from the journal: %.1f ms%s\n", stopMS, foldMS,
        rebuilt && rebuilt->value == track ? "" : "  [differs from the track]");
    std::printf("final write (folds the journal in): %.1f ms%s\n", finalMS, written ? "" : "  [failed]");
    std::printf("before: the last interim rewrite of the whole track on the poll thread: %.1f ms%s\n", rewriteMS,
        rewritten ? "" : "  [failed]");
    fs::remove_all(folder);
    return 0;
}
