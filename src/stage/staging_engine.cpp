#include "stage/staging_engine.h"

#include "base/files.h"
#include "base/log.h"
#include "base/text.h"
#include "library/library.h"
#include "media/media.h"
#include "base/bounded_queue.h"
#include "stage/recorded_moment_source.h"
#include "stage/stage_preview.h"
#include "stage/stage_renderer.h"
#include "stage/staging_error.h"
#include "stage/staging_setup.h"
#include "stage/staging_sound.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <random>
#include <algorithm>
#include <thread>

namespace plim {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr auto waitStep = 50ms;          // how often a waiting stage looks at the stop flag
constexpr double soundLead = 0.5;        // seconds of sound written ahead of the pictures
// Pictures waiting between the stages. Two keep every stage busy on a 2-core machine; each
// more costs a picture. Decoded ones wait in the decoder's own YUV and become BGRA only when
// they are composed; their budget lets two 2560 x 1600 ones wait but only one 3840 x 2160
// one (12 MB). A composed 1920 x 1080 one is 8 MB.
constexpr std::size_t decodedDepth = 2;  // between the decoder and the compositor
constexpr std::size_t decodedBudget = 16u << 20;
constexpr std::size_t composedDepth = 2; // between the compositor and the encoder

// The first failure of any stage wins and stops the others.
class FirstFailure {
public:
    FirstFailure(StopSource& stopAll, std::function<std::string(const StagingError&)> describe)
        : m_stopAll(stopAll), m_describe(std::move(describe)) {}
    void set(std::string sentence)
    {
        {
            std::lock_guard lock(m_mutex);
            if (!m_sentence)
                m_sentence = std::move(sentence);
        }
        m_stopAll.request_stop();
    }
    void set(const StagingError& error) { set(m_describe ? m_describe(error) : error.sentence()); }
    std::optional<std::string> sentence() const
    {
        std::lock_guard lock(m_mutex);
        return m_sentence;
    }

private:
    StopSource& m_stopAll;
    std::function<std::string(const StagingError&)> m_describe;
    mutable std::mutex m_mutex;
    std::optional<std::string> m_sentence;
};

struct DecodedPicture {
    RawVideoFrame picture;
    double rawTime = 0;
    int64_t slot = 0;
};

struct Composed {
    Image image;
    int64_t slot = 0;
};

// Waits for room in `queue` for an item of `bytes`, looking at the stop flag between
// waits. False when the item could not be delivered.
template<typename T>
bool deliver(BoundedQueue<T>& queue, T item, StopToken stop, const std::function<bool()>& stillOn = {},
    std::size_t bytes = 0)
{
    while (!stop.stop_requested()) {
        auto wait = queue.push(item, waitStep, bytes);
        if (wait == BoundedQueue<T>::Wait::done)
            return true;
        if (wait == BoundedQueue<T>::Wait::closed)
            return false;
        if (stillOn && !stillOn())
            return false;
    }
    return false;
}

// Reads every pass of the timeline and hands the frames the pacing rule takes to the
// compositor, each with its output slot.
void decodeStage(StagingSetup& s, BoundedQueue<DecodedPicture>& out, StopToken stop, FirstFailure& failure)
{
    double lastFrameTime = -1;
    int64_t nextSlot = 0;
    auto offer = [&](const ClipTimeline::Pass& pass, const RawVideoFrame& picture, double raw) {
        std::size_t piece = pass.pieces.back();
        for (std::size_t index : pass.pieces)
            if (raw < s.timeline.pieces[index].rawEnd) {
                piece = index;
                break;
            }
        double outT = RenderRules::pacedOutputTime(s.timeline, piece, raw);
        auto decision = RenderRules::pace(outT, nextSlot, s.fps);
        if (!decision.take)
            return true;
        nextSlot = decision.nextSlot;
        return deliver(out, DecodedPicture{picture, raw, decision.nextSlot - 1}, stop, {}, picture.bytes);
    };
    for (const auto& pass : s.timeline.passes()) {
        if (!s.reader->seek(pass.rawStart)) {
            failure.set(StagingError::unreadable("it stopped part way"));
            return;
        }
        // The picture showing at the pass's start when no frame begins exactly there.
        std::optional<RawVideoFrame> before;
        while (!stop.stop_requested()) {
            auto next = s.reader->nextRaw();
            if (!next) {
                logLine(LogArea::main, "the recording stopped being read: " + next.error().sentence);
                failure.set(StagingError::unreadable("it stopped part way"));
                return;
            }
            if (!*next) {
                // The pictures end here, which can be before the movie's length says (its
                // sound may run on a little); the last frame is held only to this end.
                if (lastFrameTime >= 0)
                    s.pictureEnd = lastFrameTime + 1.0 / s.sourceFPS;
                break;
            }
            RawVideoFrame& frame = **next;
            lastFrameTime = frame.time;
            if (frame.time >= pass.rawEnd)
                break;
            if (frame.time < pass.rawStart) {
                before = std::move(frame);
                continue;
            }
            if (before && frame.time > pass.rawStart + 1e-6 && !offer(pass, *before, pass.rawStart))
                return;
            before.reset();
            if (!offer(pass, frame, frame.time))
                return;
        }
        if (before && !offer(pass, *before, pass.rawStart))
            return;
    }
}

// Writes composed frames and the mixed sound to the sink, then finishes it.
struct EncodeStage {
    StagingSetup& s;
    VideoSink& sink;
    StagingSound* sound;
    BoundedQueue<Composed>& in;
    StopSource& stopAll;
    FirstFailure& failure;
    const StagingEngine::Progress& progress;
    std::atomic<SteadyClock::rep>& lastProgress;
    int64_t frames = 0;
    bool finished = false;
    std::atomic<bool> over{false};

    // Sound up to output second `upTo` (all of it when absent); false once it failed.
    bool feedSound(std::optional<double> upTo)
    {
        if (!sound)
            return true;
        auto fed = upTo ? sound->feedUntil(sink, *upTo) : sound->feedAll(sink);
        if (!fed)
            failure.set(fed.error().sentence);
        return fed.has_value();
    }

    void run()
    {
        encodeAll();
        over = true;
    }

    void encodeAll()
    {
        std::optional<Composed> item;
        for (;;) {
            auto wait = in.pop(item, waitStep);
            if (wait == BoundedQueue<Composed>::Wait::timedOut) {
                if (stopAll.stop_requested())
                    break;
                continue;
            }
            if (wait == BoundedQueue<Composed>::Wait::closed || stopAll.stop_requested())
                break;
            double time = static_cast<double>(item->slot) / s.fps;
            auto appended = sink.appendVideo(item->image, time, stopAll.get_token());
            if (stopAll.stop_requested())
                break;
            if (!appended) {
                failure.set(writerError(appended.error(), "a frame was refused"));
                break;
            }
            ++frames;
            lastProgress = SteadyClock::now().time_since_epoch().count();
            if (progress)
                progress(StagingProgress{frames, s.expected});
            if (!feedSound(time + soundLead))
                break;
        }
        in.close();
        if (stopAll.stop_requested() || !feedSound(std::nullopt))
            return;
        if (auto done = sink.finish(); !done) {
            failure.set(writerError(done.error(), "the file could not be finished"));
            return;
        }
        finished = true;
        if (progress && frames != s.expected)
            progress(StagingProgress{frames, frames});
    }
};

} // namespace

fs::path StagingEngine::defaultOutput(const fs::path& movie, bool reframe)
{
    return sidecarPath(movie, reframe ? PlimFiles::reframed : PlimFiles::staged);
}

Outcome<StagingEngine::Result> StagingEngine::stage(const StagingJob& job, const Progress& progress, StopToken stop)
{
    using Done = Outcome<Result>;
    if (stop.stop_requested())
        return Done::stopped(stagingStoppedSentence);
    if (job.output && job.publish == Publish::replacing) { // a new file replaces nothing
        std::vector<fs::path> voices;
        for (const auto& voice : job.voiceovers)
            voices.push_back(voice.file);
        if (auto own = refuseOwnFile(*job.output, job.movie, voices, defaultOutput(job.movie, job.reframe)); !own)
            return Done::failed(own.error().sentence);
    }
    auto setup = prepareStaging(job);
    if (!setup)
        return Done::failed(setup.error().sentence);
    StagingSetup& s = *setup;

    const fs::path output = job.output.value_or(defaultOutput(job.movie, job.reframe));
    const fs::path partial = partialSibling(output);
    auto soundPath = StagingSound::open(job, s);
    if (!soundPath)
        return Done::failed(soundPath.error().sentence);
    const bool sound = *soundPath != nullptr;
    VideoSink::Settings settings{partial, s.canvas.width, s.canvas.height, s.fps, sound, 0};
    auto sink = job.makeSink ? job.makeSink(settings) : VideoSink::movie(settings);
    if (!sink) {
        std::error_code ec;
        fs::remove(partial, ec);
        return Done::failed(stagingFailure(job, writerError(sink.error(), "it could not be created in its folder")).sentence);
    }

    if (progress)
        progress(StagingProgress{0, s.expected});
    StopSource stopAll;
    std::stop_callback forward(stop, [&] { stopAll.request_stop(); });
    FirstFailure failure(stopAll, job.describe);
    std::atomic<SteadyClock::rep> lastProgress{SteadyClock::now().time_since_epoch().count()};
    BoundedQueue<DecodedPicture> decoded(decodedDepth, decodedBudget);
    BoundedQueue<Composed> composed(composedDepth);

    std::jthread decoder([&] {
        decodeStage(s, decoded, stopAll.get_token(), failure);
        decoded.close();
    });
    EncodeStage encode{s, **sink, soundPath->get(), composed, stopAll, failure, progress, lastProgress};
    std::jthread encoder([&] { encode.run(); });

    // Composing runs here. A stall is measured from the last frame the encoder accepted.
    const auto stallLimit = std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(
        std::isfinite(job.stallLimit) && job.stallLimit > 0 ? job.stallLimit : 30.0));
    auto stillOn = [&] {
        if (SteadyClock::now() - SteadyClock::time_point(SteadyClock::duration(lastProgress.load())) <= stallLimit)
            return true;
        failure.set(StagingError::stalled(job.stallLimit));
        return false;
    };
    const StopToken token = stopAll.get_token();
    // The last picture composed, shown again in the slots the decoder passes over. Only one
    // source picture is BGRA at a time: it gives its memory to the next one.
    PictureConverter converter = s.reader->converter();
    std::optional<Image> held;
    int64_t nextSlot = 0;
    auto emit = [&](const Image& picture, double raw, int64_t slot) {
        return deliver(composed, Composed{s.compose(picture, raw, s.dtAtSlot(slot)), slot}, token, stillOn);
    };
    auto fillTo = [&](int64_t end) {
        for (; nextSlot < end; ++nextSlot)
            if (!emit(*held, s.rawAtSlot(nextSlot), nextSlot))
                return false;
        return true;
    };
    bool running = true;
    while (running && !token.stop_requested()) {
        std::optional<DecodedPicture> item;
        auto wait = decoded.pop(item, waitStep);
        if (wait == BoundedQueue<DecodedPicture>::Wait::timedOut) {
            running = stillOn();
            continue;
        }
        if (wait == BoundedQueue<DecodedPicture>::Wait::closed)
            break;
        running = !held || fillTo(item->slot);
        held.reset();
        if (!running)
            break;
        auto picture = converter.convert(item->picture);
        if (!picture) {
            logLine(LogArea::main, "the recording stopped being read: " + picture.error().sentence);
            failure.set(StagingError::unreadable("it stopped part way"));
            running = false;
            break;
        }
        held = std::move(*picture);
        const double rawTime = item->rawTime;
        const int64_t slot = item->slot;
        item.reset(); // the decoder's buffer goes back to it
        running = fillTo(slot) && emit(*held, rawTime, slot);
        nextSlot = slot + 1;
    }
    if (running && !token.stop_requested()) {
        if (!held)
            failure.set(StagingError::unreadable("no frame of it could be drawn"));
        else
            fillTo(s.frameCount(nextSlot));
    }
    decoded.close();
    composed.close();
    // The encoder drains what is queued, then finishes; a stall while it drains still counts.
    while (!encode.over && !token.stop_requested() && stillOn())
        std::this_thread::sleep_for(waitStep / 5);
    decoder.join();
    encoder.join();

    std::error_code ec;
    if (!encode.finished) {
        (*sink)->cancel();
        fs::remove(partial, ec);
        if (auto sentence = failure.sentence())
            return Done::failed(*sentence);
        return Done::stopped(stagingStoppedSentence);
    }
    auto published = publishFile(partial, output, job.publish);
    if (!published) {
        fs::remove(partial, ec);
        return Done::failed(stagingFailure(job, StagingError::writerFailed("the finished file could not be named "
            + output.string() + " (" + published.error().sentence + ")")).sentence);
    }
    Result result;
    result.stagedURL = *published;
    result.frames = encode.frames;
    result.outputDuration = static_cast<double>(encode.frames) / s.fps;
    result.plan = job.plan;
    result.rawDuration = s.rawDuration;
    result.width = s.canvas.width;
    result.height = s.canvas.height;
    result.hasSound = sound;
    return Done::finished(std::move(result));
}

plim::Result<Image> StagingEngine::frame(const StagingJob& job, double outputTime)
{
    auto one = PLIM_TRY(frames(job, {outputTime}));
    return std::move(one.front());
}

plim::Result<std::vector<Image>> StagingEngine::frames(const StagingJob& job, const std::vector<double>& outputTimes)
{
    auto preview = PLIM_TRY(StagePreview::open(job));
    std::vector<Image> out;
    const double length = preview->outputDuration();
    for (double outputTime : outputTimes) {
        if (!(outputTime <= length))
            return fail("The output is " + numberText(length, 1) + " s long, so it has no frame at "
                    + numberText(outputTime, 1) + " s. Pick a time from 0 to " + numberText(length, 1)
                    + "; nothing was drawn.",
                Error::Kind::refused);
        out.push_back(PLIM_TRY(preview->frame(outputTime)));
    }
    return out;
}

} // namespace plim
