#pragma once
// What a render is made of, prepared from its job before any file is written: the opened
// movie, the clip timeline, the canvas, the renderer, the moments and the camera feed.
// Shared by the streaming engine and the preview. Private to stage/.

#include "media/movie_reader.h"
#include "stage/movie_playhead.h"
#include "stage/recorded_moment_source.h"
#include "stage/stage_renderer.h"
#include "stage/staging_engine.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace plim {

// A failure for the user, worded by the job's `describe` when it has one.
Error stagingFailure(const StagingJob& job, const StagingError& error);
// A writer's failure, logged, as the sentence's reason ("the disk is full" when it is).
StagingError writerError(const Error& error, const char* reason);

// The recording's camera movie, read along with the screen. A camera that fails is left
// out with a logged line; the render goes on without the bubble.
class CameraFeed {
public:
    static std::unique_ptr<CameraFeed> open(const std::filesystem::path& movie, const CursorTrack& cursor);

    // The camera picture showing at screen-movie time `t`.
    std::optional<Image> at(double t);

private:
    CameraFeed(std::unique_ptr<MovieReader> reader, double offset) : m_playhead(std::move(reader)), m_offset(offset) {}

    MoviePlayhead m_playhead;
    double m_offset = 0;
    bool m_failed = false;
};

// Everything a render is made of, prepared before any file is written.
struct StagingSetup {
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

// `opened`, when given, is the job's movie already opened (read from its start).
Result<StagingSetup> prepareStaging(const StagingJob& job, std::unique_ptr<MovieReader> opened = nullptr);
// Over a movie already opened (`info` set): what the job's edit and look make (timeline,
// frame counts, renderer, moments), opening the camera feed when there is none yet.
Status prepareEdit(StagingSetup& s, const StagingJob& job);
// The renderer alone, for the job's canvas.
Status prepareRenderer(StagingSetup& s, const StagingJob& job);

} // namespace plim
