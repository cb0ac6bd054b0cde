#pragma once
// Renders a recorded plim to a movie: the staged movie (the screen card over its backdrop,
// at a canvas of 720, 1080 or 2160 lines) or the reframed one (the recording at its own
// size with the zooms, the pointer and the effects, but no backdrop or card).
//
// Output frames are chosen at 60 a second by the pacing rule (render_rules.h) through the
// plan's clip timeline; a slot the recording has no frame for shows the frame before it
// with the moment of its own time. Three stages run at once, joined by bounded queues:
// decoding (its own thread) -> composing (the calling thread) -> encoding (its own thread,
// which also mixes the sound: the plan's share sound through the media SoundMixer).
//
// Files: the movie is written under a name holding "partial" beside the final one and
// renamed when finished, so a failed or stopped render leaves nothing under the final name
// and no partial file. The plim's own files are only read.
//
// Threads: stage() blocks its caller until the render ends. `progress` is called from the
// encode thread after every frame. The stop token is looked at between frames; a stall
// (no frame encoded within `stallLimit` seconds) ends the render with its sentence.

#include "base/error.h"
#include "base/files.h"
#include "base/image.h"
#include "capture/cursor_track.h"
#include "capture/keystroke_track.h"
#include "captions/caption_track.h"
#include "library/plim_edits.h"
#include "library/plim_look.h"
#include "plan/edit_plan.h"
#include "plan/share_audio_plan.h"
#include "stage/render_rules.h"
#include "stage/stage_spec.h"
#include "stage/staging_error.h"
#include "stage/video_sink.h"

#include <filesystem>
#include <functional>
#include <optional>

namespace plim {

struct StagingJob {
    std::filesystem::path movie;          // the plim's screen movie
    CursorTrack cursor;
    KeystrokeTrack keys;
    CaptionTrack captions;                // burned in when the look's captions switch is on
    EditPlan plan;
    StageSpec spec;
    PlimLook look;                        // shape and camera corner
    std::optional<std::filesystem::path> wallpaper;
    bool reframe = false;
    RenderRules::Quality quality = RenderRules::Quality::p1080;
    // A canvas of exactly this size instead of the quality's (benchmarks, previews).
    std::optional<RenderRules::PixelSize> canvas;
    std::optional<std::filesystem::path> output; // default: B.staged.mov or B.reframe.mp4
    Publish publish = Publish::replacing;         // shares never replace a file: asNewFile
    double stallLimit = 30;               // seconds without an encoded frame
    double fps = RenderRules::videoFPS;
    // Makes the sink at the partial path; default VideoSink::movie.
    std::function<Result<std::unique_ptr<VideoSink>>(const VideoSink::Settings&)> makeSink;

    // Shares set these; a staged render leaves them alone.
    bool gif = false;                     // the GIF canvas (0.6 of the quality's side), no sound
    struct Voiceover {
        std::filesystem::path file;       // its sound file
        std::string label;                // names it in sentences
        VoiceoverSlot input;              // where it plays, in output time
        std::shared_ptr<const HeldFile> held; // when set, the sound is read from this open file
    };
    std::vector<Voiceover> voiceovers;
    // Words a failure for the user; default StagingError::sentence.
    std::function<std::string(const StagingError&)> describe;
};

struct StagingProgress {
    int64_t frames = 0;   // written so far
    int64_t expected = 0; // in all
    double fraction() const { return expected > 0 ? std::min(1.0, static_cast<double>(frames) / expected) : 0.0; }
};

class StagingEngine {
public:
    struct Result {
        std::filesystem::path stagedURL;
        double outputDuration = 0; // seconds
        double rawDuration = 0;    // seconds of recording
        EditPlan plan;
        int64_t frames = 0;
        int width = 0;
        int height = 0;
        bool hasSound = false;
    };
    using Progress = std::function<void(const StagingProgress&)>;

    static Outcome<Result> stage(const StagingJob& job, const Progress& progress, StopToken stop);

    // One output frame at `outputTime` seconds, composed as stage() would compose it.
    static plim::Result<Image> frame(const StagingJob& job, double outputTime);
    // Several, from one opening of the movie and one renderer (thumbnails).
    static plim::Result<std::vector<Image>> frames(const StagingJob& job, const std::vector<double>& outputTimes);

    // The output canvas of the job for a recording of `recorded` pixels: its own size for a
    // reframe, else the job's canvas, else the quality's in the look's shape.
    static RenderRules::PixelSize canvas(const StagingJob& job, Size recorded);

    // B.staged.mov, or B.reframe.mp4 for a reframe.
    static std::filesystem::path defaultOutput(const std::filesystem::path& movie, bool reframe);
};

} // namespace plim
