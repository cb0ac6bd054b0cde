// The editor's preview player, as the editor drives it. Plays the demo plim (2560 x 1600,
// 60 fps, with its automatic edit and a full look: spotlight, keycaps, click rings, zoom
// blur, shadow) at a 1280 x 800 preview for 20 s of output with its sound, looping at the
// edit's end, and prints the frames shown a second, the frames late and dropped, the
// process's CPU and the offset between picture and sound; then scrubs across the whole
// timeline (time to the first picture of each seek, and to the exact frame); then opens a
// one-hour plim (a 320 x 200 testsrc picture with a tone, looped from ten seconds without
// re-encoding) and times its first frame and its timeline drawn with the clips' pictures
// (in a build with the interface; offscreen without a display). The sound goes to the
// sound server when one answers, else to a device that plays at the real rate.
//
//   preview [folder]   (default: a folder under /tmp, reused between runs)

#include "app/app.h"
#ifdef PLIM_BENCH_TIMELINE
#include "library/plim_document.h"
#include "ui/editor_media.h"
#include "ui/timeline_view.h"

#include <QApplication>
#include <QImage>
#endif
#include "media/media.h"
#include "share/share_plim.h"
#include "stage/stage.h"
#include "stage/preview_player.h"
#include "stage/sound_output.h"

#include "stopwatch.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace plim;
using namespace plim::bench;
namespace fs = std::filesystem;

namespace {

[[noreturn]] void quit(const std::string& sentence)
{
    std::fprintf(stderr, "preview: %s\n", sentence.c_str());
    std::exit(1);
}

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// What the player's thread hands over, with when it came.
struct Watch {
    std::mutex mutex;
    std::condition_variable changed;
    int64_t frames = 0;
    int64_t exactFrames = 0;
    Steady::time_point lastAt;
    double lastTime = -1;
    bool lastExact = false;
    bool playing = false;
    int laps = 0; // times play went from the end back to the start
    std::vector<double> offsets; // picture time − sound heard, milliseconds
    std::function<double()> heard; // output seconds of sound heard, while it plays
    double loop = 0; // seconds of a looping edit's sound: the sound heard starts again after it

    PreviewPlayer::Callbacks callbacks()
    {
        PreviewPlayer::Callbacks c;
        c.frame = [this](const PreviewFrame& f) {
            std::lock_guard lock(mutex);
            ++frames;
            exactFrames += f.exact ? 1 : 0;
            if (playing && f.outputTime < lastTime - 1)
                ++laps;
            lastAt = Steady::now();
            lastTime = f.outputTime;
            lastExact = f.exact;
            if (playing && heard && f.outputTime > 0.5) { // once the sound has started
                double offset = f.outputTime - heard();
                if (loop > 0) // the picture and the sound on either side of the loop point
                    offset = std::remainder(offset, loop);
                offsets.push_back(1000 * offset);
            }
            changed.notify_all();
        };
        c.playing = [this](bool on) {
            std::lock_guard lock(mutex);
            playing = on;
            changed.notify_all();
        };
        c.failed = [](const Error& e) { quit(e.sentence); };
        return c;
    }
    template <typename Done>
    bool waitFor(Done done, double seconds = 30)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return done(); });
    }
};

fs::path ensureDemo(const fs::path& folder)
{
    const fs::path movie = folder / "Demo.mov";
    if (fs::exists(movie) && fs::exists(folder / "Demo.cursor.json"))
        return movie;
    std::printf("writing the demo plim (2560x1600, 60 fps)...\n");
    auto made = writeDemoPlim(folder, {});
    if (!made)
        quit(made.error().sentence);
    return movie;
}

fs::path ensureLongMovie(const fs::path& folder)
{
    const fs::path movie = folder / "Hour.mov";
    if (fs::exists(movie))
        return movie;
    const fs::path clip = folder / "ten-seconds.mov";
    const std::string make = "ffmpeg -v error -y -f lavfi -i testsrc=size=320x200:rate=60 -f lavfi -i "
                             "sine=frequency=440:sample_rate=48000 -t 10 -c:v libx264 -preset ultrafast -crf 32 -g 120 "
                             "-pix_fmt yuv420p -c:a aac '" + clip.string() + "' && ffmpeg -v error -y -stream_loop 359 -i '"
        + clip.string() + "' -c copy '" + movie.string() + "'";
    if (std::system(make.c_str()) != 0)
        quit("ffmpeg could not make the one-hour movie");
    fs::remove(clip);
    return movie;
}

std::unique_ptr<SoundOutput> soundOutput(const char** kind)
{
    if (auto pulse = SoundOutput::pulse("Plim preview bench")) {
        *kind = "the sound server";
        return std::move(*pulse);
    }
    *kind = "a device playing at the real rate (no sound server answered)";
    return std::make_unique<ScriptedSoundOutput>();
}

} // namespace

int main(int argc, char** argv)
{
#ifdef PLIM_BENCH_TIMELINE
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY"))
        setenv("QT_QPA_PLATFORM", "offscreen", 0);
    int qtArgc = 1;
    QApplication app(qtArgc, argv); // the timeline's
#endif
    const fs::path folder = argc > 1 ? fs::path(argv[1]) : fs::temp_directory_path() / "plim-preview-bench";
    std::error_code made;
    fs::create_directories(folder, made);
    if (made)
        quit("usage: preview [WORK FOLDER]: " + folder.string() + " cannot be used as the bench's work folder ("
            + made.message() + ").");
    const fs::path movie = ensureDemo(folder);

    auto report = gatherPlan(movie);
    if (!report)
        quit(report.error().sentence);
    auto plim = SharePlim::read(movie);
    if (!plim)
        quit(plim.error().sentence);
    PlimEdits edits;
    edits.plan = proposeAutoEdit(*report).plan;
    PlimLook look;
    look.spotlight = true;
    look.keys = true;
    look.clickRings = true;
    look.zoomBlur = true;
    edits.look = look;
    if (auto worn = plim->wear(edits); !worn)
        quit(worn.error().sentence);
    std::printf("demo plim: %s, %dx%d, %.0f fps, %.1f s of recording\n", movie.c_str(), plim->info.width,
        plim->info.height, plim->info.frameRate, plim->info.duration);

    // --- The drawing alone: every frame in turn, as play needs them, on this thread ---
    {
        StagingJob job = plim->job;
        job.canvas = RenderRules::PixelSize{1280, 800};
        auto preview = StagePreview::open(job);
        if (!preview)
            quit(preview.error().sentence);
        (*preview)->setPicturesFitted(true); // as the player draws
        const int frames = 240;
        const double cpuBefore = cpuSeconds();
        const auto start = Steady::now();
        for (int i = 0; i < frames; ++i)
            if (auto shot = (*preview)->shot(i / 60.0); !shot)
                quit(shot.error().sentence);
        const double cpu = (cpuSeconds() - cpuBefore) * 1000 / frames;
        const double wall = millisecondsSince(start) / frames;
        std::printf("drawing %d frames in turn at 1280x800 (decode, convert, compose): %.1f ms of CPU and %.1f ms of "
                    "wall clock a frame (60 fps needs 16.7 ms of wall clock)\n",
            frames, cpu, wall);
    }

    // --- 20 s of play at 1280 x 800 ---
    {
        Watch watch;
        const char* soundKind = "";
        PreviewPlayer::Options options;
        options.width = 1280;
        options.height = 800;
        options.sound = soundOutput(&soundKind);
        SoundOutput* sound = options.sound.get();
        watch.heard = [&] { return static_cast<double>(sound->playedFrames()) / sound->rate(); };
        auto player = PreviewPlayer::open(plim->job, std::move(options), watch.callbacks());
        if (!player)
            quit(player.error().sentence);
        auto& p = **player;
        watch.waitFor([&] { return watch.frames > 0; });
        // 20 s of play, looping: from the start again whenever the edit ends before that.
        {
            std::lock_guard lock(watch.mutex);
            watch.loop = p.duration();
        }
        p.setLooping(true);
        p.play();
        watch.waitFor([&] { return watch.playing; }, 5);
        const double cpuBefore = cpuSeconds();
        const auto started = Steady::now();
        const auto counted = p.counters();
        std::this_thread::sleep_for(std::chrono::milliseconds(20000));
        p.pause();
        const double wall = std::chrono::duration<double>(Steady::now() - started).count();
        const double cpu = cpuSeconds() - cpuBefore;
        watch.waitFor([&] { return !watch.playing; });
        const auto c = p.counters();
        const int64_t shown = c.shown - counted.shown;
        std::vector<double> offsets;
        {
            std::lock_guard lock(watch.mutex);
            offsets = watch.offsets;
        }
        const std::vector<double>& settled = offsets;
        double worst = 0;
        for (double o : settled)
            worst = std::max(worst, std::abs(o));
        const int rounds = 1 + watch.laps;
        std::printf("play %.1f s at %dx%d (%d run%s through the %.1f s edit, looping), full look, sound to %s%s:\n",
            wall, 1280, 800, rounds, rounds == 1 ? "" : "s", p.duration(), soundKind,
            p.hasSound() ? "" : " (the edit has no sound)");
        std::printf("  frames shown %.1f a second (%lld in all; target 60), late %lld, dropped %lld (target 0 late)\n",
            static_cast<double>(shown) / wall, static_cast<long long>(shown), static_cast<long long>(c.late - counted.late),
            static_cast<long long>(c.dropped - counted.dropped));
        std::printf("  CPU %.0f %% of one core (%.1f s of CPU in %.1f s), peak memory %.0f MB\n", 100 * cpu / wall, cpu,
            wall, peakResidentMB());
        if (p.hasSound() && !settled.empty())
            std::printf("  picture ahead of the sound heard: median %.1f ms, worst %.1f ms (one frame is 16.7 ms)\n",
                median(settled), worst);
    }

    // --- A scrub across the whole timeline ---
    {
        Watch watch;
        PreviewPlayer::Options options;
        options.width = 1280;
        options.height = 800;
        auto player = PreviewPlayer::open(plim->job, std::move(options), watch.callbacks());
        if (!player)
            quit(player.error().sentence);
        auto& p = **player;
        watch.waitFor([&] { return watch.frames > 0; });
        // Seeks across the whole timeline as a drag would; milliseconds to the first
        // picture of each, and to the exact frame.
        const int seeks = 60;
        auto sweep = [&](std::vector<double>& first, std::vector<double>& exact) {
            for (int i = 1; i <= seeks; ++i) {
                const double t = p.duration() * i / (seeks + 1);
                const double slotTime = static_cast<double>(RenderRules::slotOf(t, p.fps())) / p.fps();
                int64_t before = 0;
                {
                    std::lock_guard lock(watch.mutex);
                    before = watch.frames;
                }
                const auto start = Steady::now();
                p.seek(t, true);
                watch.waitFor([&] { return watch.frames > before; });
                first.push_back(millisecondsSince(start));
                watch.waitFor([&] { return watch.lastExact && std::abs(watch.lastTime - slotTime) < 1e-9; });
                exact.push_back(millisecondsSince(start));
            }
        };
        std::vector<double> first, exact, again, againExact;
        sweep(first, exact);
        std::printf("scrub across %.1f s in %d seeks: first picture median %.0f ms, worst %.0f ms (target <= 50 ms); "
                    "exact frame median %.0f ms, worst %.0f ms\n",
            p.duration(), seeks, median(first), *std::max_element(first.begin(), first.end()), median(exact),
            *std::max_element(exact.begin(), exact.end()));
        // The same again: the cache now holds what the first sweep drew.
        sweep(again, againExact);
        std::printf("  the same scrub again (cached): first picture median %.1f ms, worst %.1f ms\n", median(again),
            *std::max_element(again.begin(), again.end()));
    }

    // --- Opening a one-hour plim: the preview's first frame, and the timeline drawn ---
    {
        const fs::path hour = ensureLongMovie(folder);
        Watch watch;
        const auto start = Steady::now();
#ifdef PLIM_BENCH_TIMELINE
        // The editor's timeline, made on this (the interface) thread as the editor makes it
        // while the preview opens on its own.
        auto document = PlimDocument::open(hour, 3600, false).document;
        ThumbnailSource thumbnails(hour, 54);
        WaveformSource waveform(hour);
        TimelineView timeline(*document);
        timeline.setMoments(readPlimMoments(hour));
        timeline.setSources(&thumbnails, &waveform);
        timeline.resize(1200, 260);
        timeline.show();
#endif
        std::unique_ptr<MovieReader> reader;
        auto longPlim = SharePlim::read(hour, &reader);
        if (!longPlim)
            quit(longPlim.error().sentence);
        const double readMs = millisecondsSince(start);
        PreviewPlayer::Options options;
        options.width = 1280;
        options.height = 800;
        options.movie = std::move(reader);
        auto player = PreviewPlayer::open(longPlim->job, std::move(options), watch.callbacks());
        if (!player)
            quit(player.error().sentence);
#ifndef PLIM_BENCH_TIMELINE
        watch.waitFor([&] { return watch.frames > 0; });
        std::printf("one-hour plim (%s: 320x200 testsrc at 60 fps with a tone, %.0f s): read %.0f ms, first frame "
                    "%.0f ms after opening began (target <= 1000 ms); the timeline is not timed in a build without "
                    "the interface\n",
            hour.filename().c_str(), longPlim->info.duration, readMs, millisecondsSince(start));
#else
        double firstMs = -1;
        // The timeline counts as drawn once the pictures of its clips have arrived: the lane
        // they lie in has changed from its first painting and then stays as it is.
        const QRect clipsLane = timeline.laneRect(TimelineView::Lane::clips);
        const QImage bare = timeline.grab(clipsLane).toImage();
        QImage last = bare;
        double drawnMs = -1, soundMs = -1;
        int unchanged = 0;
        while (millisecondsSince(start) < 30000 && (firstMs < 0 || unchanged < 10 || soundMs < 0)) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            {
                std::lock_guard lock(watch.mutex);
                if (firstMs < 0 && watch.frames > 0)
                    firstMs = std::chrono::duration<double, std::milli>(watch.lastAt - start).count();
            }
            if (soundMs < 0 && waveform.isComplete())
                soundMs = millisecondsSince(start);
            const QImage now = timeline.grab(clipsLane).toImage();
            if (now == last) {
                ++unchanged;
            } else {
                unchanged = 0;
                last = now;
                drawnMs = millisecondsSince(start);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::printf("one-hour plim (%s: 320x200 testsrc at 60 fps with a tone, %.0f s): read %.0f ms, first frame "
                    "%.0f ms after opening began (target <= 1000 ms)\n",
            hour.filename().c_str(), longPlim->info.duration, readMs, firstMs);
        if (last == bare)
            std::printf("  timeline: no picture of the clips arrived in 30 s\n");
        else
            std::printf("  timeline drawn with its clips' pictures %.0f ms after opening began (target <= 2000 ms); "
                        "its whole waveform %s\n",
                drawnMs, soundMs < 0 ? "not read in 30 s" : (std::to_string(std::lround(soundMs)) + " ms").c_str());
#endif
    }
    return 0;
}
