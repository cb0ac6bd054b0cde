#pragma once
// Where a render's composed frames and mixed sound go: an H.264 + AAC movie written by
// media's MovieWriter, or a stand-in a test gives the staging engine.
//
// Thread contract: one thread (the engine's encode thread) calls every method, in order:
// any number of appendVideo/appendAudio, then finish() or cancel(). appendVideo may block
// while the encoder catches up; a sink that can wait a long time returns once `stop` is
// requested. Errors are sentences from the writer; the engine words them for the user.

#include "base/error.h"
#include "base/image.h"

#include <filesystem>
#include <memory>

namespace plim {

class VideoSink {
public:
    struct Settings {
        std::filesystem::path path; // the partial file
        int width = 0;
        int height = 0;
        double fps = 60;
        bool sound = false;         // one stereo 48 kHz AAC track
        int threads = 0;            // encoder threads; 0 = the encoder's choice
    };

    virtual ~VideoSink() = default;
    virtual Status appendVideo(const Image& image, double time, StopToken stop) = 0;
    // Interleaved stereo frames at 48 kHz starting at output frame `startFrame`.
    virtual Status appendAudio(const float* interleaved, int64_t frames, int64_t startFrame) = 0;
    virtual double soundSeconds() const = 0;
    // Leaves a complete file at the settings' path.
    virtual Status finish() = 0;
    // Stops and removes the partial file.
    virtual void cancel() = 0;

    // An MPEG-4 movie with its index at the front, H.264 at the export preset and bit rate.
    static Result<std::unique_ptr<VideoSink>> movie(const Settings& settings);
};

} // namespace plim
