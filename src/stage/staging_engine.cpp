#include "stage/staging_engine.h"

#include "base/files.h"
#include "base/log.h"
#include "base/text.h"
#include "library/library.h"
#include "media/media.h"
#include "stage/bounded_queue.h"
#include "stage/recorded_moment_source.h"
#include "stage/share_audio_mixer.h"
#include "stage/share_audio_plan.h"
#include "stage/stage_renderer.h"
#include "stage/staging_error.h"

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
constexpr int64_t soundBlock = 4800;     // frames per mixer block (0.1 s)
// Pictures waiting between the stages. Two keep every stage busy on a 2-core machine; each
// more costs a picture. Decoded ones wait in the decoder's own YUV and become BGRA only when
// they are composed; their budget lets two 2560 x 1600 ones wait but only one 3840 x 2160
// one (12 MB). A composed 1920 x 1080 one is 8 MB.
constexpr std::size_t decodedDepth = 2;  // between the decoder and the compositor
constexpr std::size_t decodedBudget = 16u << 20;
constexpr std::size_t composedDepth = 2; // between the compositor and the encoder

Error stagingFailure(const StagingJob& job, const StagingError& error)
{
    Error out = error.error();
    if (job.describe)
        out.sentence = job.describe(error);
    return out;
}

// The recording's camera movie, read along with the screen. A camera that fails is left
// out with a logged line; the render goes on without the bubble.
class CameraFeed {
public:
    static std::unique_ptr<CameraFeed> open(const fs::path& movie, const CursorTrack& cursor)
    {
        fs::path path = sidecarPath(movie, PlimFiles::camera);
        std::error_code ec;
        if (!cursor.cameraOffsetMS || !fs::exists(path, ec))
            return nullptr;
        auto reader = MovieReader::create(path);
        if (!reader) {
            logLine(LogArea::main, "the camera movie is left out of the render: " + reader.error().sentence);
            return nullptr;
        }
        auto feed = std::make_unique<CameraFeed>();
        feed->m_reader = std::move(*reader);
        feed->m_offset = static_cast<double>(*cursor.cameraOffsetMS) / 1000.0;
        return feed;
    }

    // The camera picture showing at screen-movie time `t`.
    std::optional<Image> at(double t)
    {
        if (m_failed)
            return std::nullopt;
        double ct = t + m_offset;
        if (m_current && ct < m_current->time - 1e-6) {
            if (!m_reader->seek(ct))
                return failed("it could not be positioned");
            m_current.reset();
            m_pending.reset();
            m_ended = false;
        }
        while (!m_ended) {
            if (!m_pending) {
                auto next = m_reader->next();
                if (!next)
                    return failed(next.error().sentence);
                if (!*next) {
                    m_ended = true;
                    break;
                }
                m_pending = std::move(**next);
            }
            if (m_current && m_pending->time > ct)
                break;
            m_current = std::move(m_pending);
            m_pending.reset();
        }
        if (!m_current)
            return std::nullopt;
        return m_current->image;
    }

private:
    std::optional<Image> failed(const std::string& why)
    {
        logLine(LogArea::main, "the camera movie stopped being read and is left out from here on: " + why);
        m_failed = true;
        return std::nullopt;
    }

    std::unique_ptr<MovieReader> m_reader;
    double m_offset = 0;
    std::optional<VideoFrame> m_current;
    std::optional<VideoFrame> m_pending;
    bool m_ended = false;
    bool m_failed = false;
};

// Everything a render is made of, prepared before any file is written.
struct Setup {
    std::unique_ptr<MovieReader> reader;
    MovieInfo info;
    double rawDuration = 0;
    ClipTimeline timeline;
    int64_t expected = 0;
    RenderRules::PixelSize canvas;
    std::unique_ptr<StageRenderer> renderer;
    std::optional<RecordedMomentSource> moments;
    std::unique_ptr<CameraFeed> camera;
    double fps = 60;
    double sourceFPS = 60;
    std::optional<double> pictureEnd; // set by the decoder when the pictures end early

    // Output frames in all: the expected count, less what the last frame would be held
    // past the end of the pictures.
    int64_t frameCount(int64_t drawn) const
    {
        if (!pictureEnd || timeline.pieces.empty() || timeline.pieces.back().rawEnd <= *pictureEnd)
            return std::max(drawn, expected);
        double end = RenderRules::pacedOutputTime(timeline, timeline.pieces.size() - 1, *pictureEnd);
        return std::max(drawn, std::min(expected, static_cast<int64_t>(std::llround(end * fps))));
    }

    double rawAtSlot(int64_t slot) const
    {
        return timeline.rawTime(static_cast<double>(slot) / fps).value_or(0.0);
    }
    // Source seconds between this output frame and the next.
    double dtAtSlot(int64_t slot) const
    {
        double dt = rawAtSlot(slot + 1) - rawAtSlot(slot);
        return std::isfinite(dt) && dt > 0 ? dt : 1.0 / fps;
    }
    Image compose(const Image& picture, double raw, double dt)
    {
        StageMoment moment = moments->moment(raw, dt);
        std::optional<Image> cameraPicture = camera ? camera->at(raw) : std::nullopt;
        return renderer->render(picture, moment, std::nullopt, cameraPicture);
    }
};

RenderRules::PixelSize canvasFor(const StagingJob& job, const MovieInfo& info)
{
    auto even = [](int side) { return std::max(2, side / 2 * 2); };
    if (job.reframe)
        return {even(info.width), even(info.height)};
    if (job.canvas)
        return {even(job.canvas->width), even(job.canvas->height)};
    int shortSide = static_cast<int>(job.quality);
    if (job.gif)
        shortSide = even(static_cast<int>(shortSide * 0.6));
    switch (job.look.shape) {
    case PlimLook::Shape::vertical:
    case PlimLook::Shape::iPhone:
        return {shortSide, even(static_cast<int>(shortSide * 16.0 / 9.0))};
    case PlimLook::Shape::square:
        return {shortSide, shortSide};
    case PlimLook::Shape::landscape:
        break;
    }
    return RenderRules::canvasSize(job.quality, job.gif, Size{static_cast<double>(info.width), static_cast<double>(info.height)});
}

Result<Setup> prepare(const StagingJob& job)
{
    Setup s;
    s.fps = job.fps > 0 && std::isfinite(job.fps) ? job.fps : RenderRules::videoFPS;
    // Each decoder thread holds frames of its own; past a few threads a 4K source costs
    // memory faster than it gains speed.
    MovieReader::Options decoding;
    decoding.threads = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
    auto reader = MovieReader::create(job.movie, decoding);
    if (!reader) {
        logLine(LogArea::main, "the recording could not be opened for rendering: " + reader.error().sentence);
        return std::unexpected(stagingFailure(job, StagingError::unusable(reader.error().sentence)));
    }
    s.reader = std::move(*reader);
    s.info = s.reader->info();
    s.rawDuration = s.info.duration;
    if (!(s.rawDuration > 0) || s.info.width < 2 || s.info.height < 2)
        return std::unexpected(stagingFailure(job, StagingError::unreadable("it holds no picture to show")));
    s.sourceFPS = s.info.frameRate > 0 && std::isfinite(s.info.frameRate) ? s.info.frameRate : RenderRules::assumedSourceFPS;
    s.timeline = job.plan.clipTimeline(s.rawDuration);
    s.expected = RenderRules::expectedFrames(s.timeline, s.sourceFPS, s.fps);
    if (s.expected == 0 && s.timeline.outputDuration() > 0)
        return std::unexpected(stagingFailure(job,
            StagingError::unusable(job.movie.filename().string() + " holds " + numberText(s.sourceFPS, 1)
                + " pictures a second, and none of them falls inside the " + numberText(s.timeline.outputDuration(), 2)
                + " s this edit keeps, so there is nothing to show. Keep a longer stretch, or record the plim again "
                  "at a higher frame rate.")));
    if (s.expected == 0)
        return std::unexpected(stagingFailure(job, StagingError::emptyEdit()));

    s.canvas = canvasFor(job, s.info);
    s.camera = job.reframe ? nullptr : CameraFeed::open(job.movie, job.cursor);
    StageRenderer::Options options;
    options.content = Size{static_cast<double>(s.info.width), static_cast<double>(s.info.height)};
    options.shape = job.look.shape;
    options.deviceFramed = job.cursor.subjectKind == "device";
    options.reframe = job.reframe;
    if (s.camera && job.look.cameraBubble)
        options.camera = CameraBubble::from(job.plan, job.look.bubbleCorner);
    options.zoomBlur = job.look.zoomBlur;
    options.hasKeycaps = job.look.keys;
    options.wallpaper = job.wallpaper;
    s.renderer = PLIM_TRY(StageRenderer::create(job.spec, Size{static_cast<double>(s.canvas.width),
                                                             static_cast<double>(s.canvas.height)}, options));
    RecordedMomentSource::Options momentOptions;
    momentOptions.keycaps = job.look.keys;
    s.moments.emplace(RecordedMomentSource::forPlim(job.cursor, job.keys, job.plan, job.spec, s.rawDuration, {}, momentOptions));
    return s;
}

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

StagingError writerError(const Error& error, const char* reason)
{
    logLine(LogArea::main, "the render's writer failed: " + error.sentence);
    return StagingError::writerFailed(error.kind == Error::Kind::noSpace ? "the disk is full" : reason);
}

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
void decodeStage(Setup& s, BoundedQueue<DecodedPicture>& out, StopToken stop, FirstFailure& failure)
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
    Setup& s;
    VideoSink& sink;
    ShareAudioMixer* mixer;
    BoundedQueue<Composed>& in;
    StopSource& stopAll;
    FirstFailure& failure;
    const StagingEngine::Progress& progress;
    std::atomic<SteadyClock::rep>& lastProgress;
    int64_t frames = 0;
    bool finished = false;
    std::atomic<bool> over{false};

    bool feedSound(double upTo)
    {
        return !mixer || feedSoundUntil(static_cast<int64_t>(std::ceil(upTo * soundSampleRate)));
    }

    bool feedSoundUntil(int64_t until)
    {
        if (!mixer)
            return true;
        while (mixer->framesMixed() < until) {
            auto block = mixer->next(std::min(soundBlock, until - mixer->framesMixed()));
            if (!block) {
                failure.set(block.error().sentence);
                return false;
            }
            if (!*block)
                return true;
            const auto& samples = (*block)->samples;
            auto appended = sink.appendAudio(samples.data(), static_cast<int64_t>(samples.size() / soundChannels),
                (*block)->start);
            if (!appended) {
                failure.set(writerError(appended.error(), "the sound was refused"));
                return false;
            }
        }
        return true;
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
        if (stopAll.stop_requested() || !feedSoundUntil(mixer ? mixer->plan().totalFrames : 0))
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

fs::path StagingEngine::partialPath(const fs::path& output)
{
    static std::mutex mutex;
    static std::mt19937_64 random{std::random_device{}()};
    uint64_t tag;
    {
        std::lock_guard lock(mutex);
        tag = random();
    }
    char hex[9];
    std::snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(tag));
    return output.parent_path() / (output.stem().string() + ".partial-" + hex + output.extension().string());
}

Outcome<StagingEngine::Result> StagingEngine::stage(const StagingJob& job, const Progress& progress, StopToken stop)
{
    using Done = Outcome<Result>;
    if (stop.stop_requested())
        return Done::stopped(stagingStoppedSentence);
    auto setup = prepare(job);
    if (!setup)
        return Done::failed(setup.error().sentence);
    Setup& s = *setup;

    const fs::path output = job.output.value_or(defaultOutput(job.movie, job.reframe));
    const fs::path partial = partialPath(output);
    const bool sound = !job.gif && (s.info.hasSound || !job.voiceovers.empty());
    // The movie's sound opens before the writer and before any picture is in flight (its
    // probe decodes a picture of its own); sound that cannot be read ends the render here.
    std::shared_ptr<AssetPCMSource> movieSound;
    if (sound && s.info.hasSound) {
        movieSound = std::make_shared<AssetPCMSource>(job.movie, "The plim's sound");
        if (auto opened = movieSound->open(); !opened)
            return Done::failed(opened.error().sentence);
    }
    VideoSink::Settings settings{partial, s.canvas.width, s.canvas.height, s.fps, sound, 0};
    auto sink = job.makeSink ? job.makeSink(settings) : VideoSink::movie(settings);
    if (!sink) {
        std::error_code ec;
        fs::remove(partial, ec);
        return Done::failed(stagingFailure(job, writerError(sink.error(), "the writer failed")).sentence);
    }

    std::unique_ptr<ShareAudioMixer> mixer;
    if (sound) {
        std::vector<ShareAudioPlan::VoiceInput> inputs;
        std::map<int, std::shared_ptr<PCMSource>> voices;
        for (const auto& voice : job.voiceovers) {
            voices[static_cast<int>(inputs.size())] = std::make_shared<AssetPCMSource>(voice.file, voice.label);
            inputs.push_back(voice.input);
        }
        auto plan = ShareAudioPlan::plan(job.plan, s.rawDuration, inputs, s.info.hasSound, soundSampleRate);
        mixer = std::make_unique<ShareAudioMixer>(std::move(plan), std::move(movieSound), std::move(voices));
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
    EncodeStage encode{s, **sink, mixer.get(), composed, stopAll, failure, progress, lastProgress};
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
    fs::rename(partial, output, ec);
    if (ec) {
        fs::remove(partial, ec);
        return Done::failed(stagingFailure(job, StagingError::writerFailed("the finished file could not be named " + output.string())).sentence);
    }
    Result result;
    result.stagedURL = output;
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
    auto frames = PLIM_TRY(StagingEngine::frames(job, {outputTime}));
    return std::move(frames.front());
}

plim::Result<std::vector<Image>> StagingEngine::frames(const StagingJob& job, const std::vector<double>& outputTimes)
{
    auto s = PLIM_TRY(prepare(job));
    std::vector<Image> out;
    const double length = s.timeline.outputDuration();
    for (double outputTime : outputTimes) {
        if (!(outputTime <= length))
            return fail("The output is " + numberText(length, 1) + " s long, so it has no frame at "
                    + numberText(outputTime, 1) + " s. Pick a time from 0 to " + numberText(length, 1)
                    + "; nothing was drawn.",
                Error::Kind::refused);
        double raw = s.timeline.rawTime(std::max(0.0, outputTime)).value_or(0.0);
        PLIM_TRY(s.reader->seek(raw));
        auto next = PLIM_TRY(s.reader->next());
        if (!next)
            return std::unexpected(stagingFailure(job, StagingError::unreadable("no frame of it could be drawn")));
        int64_t slot = RenderRules::slotOf(outputTime, s.fps);
        out.push_back(s.compose(next->image, raw, s.dtAtSlot(slot)));
    }
    return out;
}

} // namespace plim
