#include "stage/staging_setup.h"

#include "base/files.h"
#include "base/log.h"
#include "base/text.h"
#include "library/library.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace plim {

namespace fs = std::filesystem;

RenderRules::PixelSize StagingEngine::canvas(const StagingJob& job, Size recorded)
{
    auto even = [](int side) { return std::max(2, side / 2 * 2); };
    if (job.reframe)
        return {even(static_cast<int>(recorded.width)), even(static_cast<int>(recorded.height))};
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
    case PlimLook::Shape::wide:
        return {even(static_cast<int>(shortSide * 16.0 / 10.0)), shortSide};
    case PlimLook::Shape::landscape:
        break;
    }
    return RenderRules::canvasSize(job.quality, job.gif, recorded);
}

Error stagingFailure(const StagingJob& job, const StagingError& error)
{
    Error out = error.error();
    if (job.describe)
        out.sentence = job.describe(error);
    return out;
}

StagingError writerError(const Error& error, const char* reason)
{
    logLine(LogArea::main, "the render's writer failed: " + error.sentence);
    if (error.kind == Error::Kind::noSpace)
        return StagingError::writerFailed("the disk is full", true);
    return StagingError::writerFailed(reason);
}

std::unique_ptr<CameraFeed> CameraFeed::open(const fs::path& movie, const CursorTrack& cursor)
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
    return std::unique_ptr<CameraFeed>(
        new CameraFeed(std::move(*reader), static_cast<double>(*cursor.cameraOffsetMS) / 1000.0));
}

std::optional<Image> CameraFeed::at(double t)
{
    if (m_failed)
        return std::nullopt;
    auto picture = m_playhead.at(t + m_offset);
    if (!picture) {
        logLine(LogArea::main,
            "the camera movie stopped being read and is left out from here on: " + picture.error().sentence);
        m_failed = true;
        return std::nullopt;
    }
    if (!*picture)
        return std::nullopt;
    return (*picture)->image;
}

Result<StagingSetup> prepareStaging(const StagingJob& job, std::unique_ptr<MovieReader> opened)
{
    StagingSetup s;
    // Each decoder thread holds frames of its own; past a few threads a 4K source costs
    // memory faster than it gains speed.
    MovieReader::Options decoding;
    decoding.threads = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
    auto reader = opened ? Result<std::unique_ptr<MovieReader>>(std::move(opened)) : MovieReader::create(job.movie, decoding);
    if (!reader) {
        logLine(LogArea::main, "the recording could not be opened for rendering: " + reader.error().sentence);
        return std::unexpected(stagingFailure(job, StagingError::unusable(reader.error().sentence)));
    }
    s.reader = std::move(*reader);
    s.info = s.reader->info();
    PLIM_TRY(prepareEdit(s, job));
    return s;
}

Status prepareEdit(StagingSetup& s, const StagingJob& job)
{
    s.fps = job.fps > 0 && std::isfinite(job.fps) ? job.fps : RenderRules::videoFPS;
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
    // An edit made for a longer recording: it starts (or all its clips do) past this movie's end.
    const auto& clips = job.plan.clips;
    const bool startsPastEnd = clips && !clips->empty()
        ? std::all_of(clips->begin(), clips->end(), [&](const PlimClip& c) { return c.start >= s.rawDuration; })
        : job.plan.trimIn.value_or(0) >= s.rawDuration;
    if (s.expected == 0 && startsPastEnd)
        return std::unexpected(stagingFailure(job,
            StagingError::unusable(job.movie.filename().string() + " lasts " + numberText(s.rawDuration, 2)
                + " s, and this edit keeps only what would come after that, as if it were made for a longer "
                  "recording. Move the trim handles or clips inside the recording, then render again.")));
    if (s.expected == 0)
        return std::unexpected(stagingFailure(job, StagingError::emptyEdit()));

    if (!s.camera && !job.reframe)
        s.camera = CameraFeed::open(job.movie, job.cursor);
    PLIM_TRY(prepareRenderer(s, job));
    RecordedMomentSource::Options momentOptions;
    momentOptions.keycaps = job.look.keys;
    momentOptions.glide = job.look.cursorGlide;
    std::vector<RecordedMomentSource::CaptionCue> captions;
    if (job.look.captions)
        for (const CaptionLine& line : job.captions.lines)
            captions.push_back({line.text, line.start, line.end});
    s.moments.emplace(RecordedMomentSource::forPlim(job.cursor, job.keys, job.plan, job.spec, s.rawDuration,
        std::move(captions), momentOptions));
    return {};
}

Status prepareRenderer(StagingSetup& s, const StagingJob& job)
{
    s.canvas = StagingEngine::canvas(job, Size{static_cast<double>(s.info.width), static_cast<double>(s.info.height)});
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
    return {};
}

} // namespace plim
