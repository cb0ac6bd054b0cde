#pragma once
// Writing movies over FFmpeg: H.264 through libx264, AAC sound (FFmpeg's own encoder), in one of two containers:
//   - `mp4`: MPEG-4 with its index moved to the front when finished (+faststart), for
//     exports;
//   - `fragmentedMov`: a QuickTime movie written in 2-second fragments (a key frame every
//     2 s, each fragment starting at one), so that a recording cut short by a crash or a
//     kill stays readable up to its last whole fragment.
//
// Pictures are BGRA (base/image.h) converted to yuv420p (colour_convert.h); HD pictures (720 rows
// or more) are converted with the BT.709 matrix and SD with BT.601, limited range, and the
// stream is tagged with that matrix, its primaries and transfer.
//
// Thread and timing contract: one thread calls `appendVideo`, `appendAudio`, `finish` and
// `cancel` (not concurrently). Colour conversion (and scaling, for `scalePictures`) happens
// on the caller's thread; encoding
// and muxing run on the writer's own thread behind a bounded queue (`queueDepth` pictures),
// so `appendVideo` blocks when the encoder falls behind. x264 uses its own threads too. An
// error on the writer's thread is returned by the next call. Video times are seconds from
// the start, strictly increasing; they are stored at 1/`timeScale` resolution.
//
// Files: `finish()` leaves a complete movie at `path`. `cancel()`, or a failed `finish()`,
// removes the partial file. A writer destroyed without either cancels (for `mp4`) or
// leaves the fragments written so far (for `fragmentedMov`, which is the point of it).
//
#include "base/error.h"
#include "base/image.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace plim {

// Export preset "veryfast", from bench/media_bench on this 2-core machine (shared with
// other builds, so absolute speeds are low): 1080p60 screen content (scrolling text, a
// moving pointer) transcoded at the export bit rate of 9.5 Mb/s:
//   ultrafast 13.2 frames/s, PSNR mean 34.2 dB (worst frame 26.4 dB)
//   superfast  9.2 frames/s, PSNR mean 32.7 dB (worst 22.3 dB)
//   veryfast  10.3 frames/s, PSNR mean 36.5 dB (worst 32.5 dB)
//   faster     7.0 frames/s, PSNR mean 37.7 dB (worst 34.2 dB)
//   fast       6.4 frames/s, PSNR mean 38.0 dB (worst 34.7 dB)
// "veryfast" keeps text clean at the fixed bit rate (2.3 dB over ultrafast, 6 dB on the
// worst frame) and is the fastest preset at that quality; "faster" costs a third more time
// for 1.1 dB more.
inline constexpr const char* exportPreset = "veryfast";
// Recordings are encoded live, so they use the fastest preset.
inline constexpr const char* recordingPreset = "ultrafast";

// Export bit rate: 9,500,000 × (max(width × height, 1) / 2,073,600)^0.82, truncated.
int64_t exportBitsPerSecond(int width, int height);
// Recording bit rate: width × height × 4, at least 8,000,000, times max(scale, 0.25),
// truncated. A scale that is not finite counts as 1.
int64_t recordingBitsPerSecond(int width, int height, double scale);

class MovieWriter {
public:
    enum class Container { mp4, fragmentedMov, matroska };

    struct SoundTrack {
        int channels = 2;               // 1 or 2
        int bitsPerSecond = 160000;
        int sampleRate = 48000;
    };

    struct Settings {
        std::filesystem::path path;
        Container container = Container::mp4;
        int width = 0;                  // even, at least 2
        int height = 0;
        double frameRate = 60;          // expected picture rate (key-frame interval = 2 s of it)
        int64_t bitsPerSecond = 0;      // average rate; 0 picks exportBitsPerSecond
        bool constantRate = false;      // hold the rate over every second, with filler where pictures need less (exports)
        std::string preset = exportPreset;
        std::vector<SoundTrack> sound;  // at most two tracks
        int threads = 0;                // encoder threads; 0 = the codec's choice
        int queueDepth = 8;             // pictures waiting for the encoder
        // x264's lookahead on a thread of its own, with its own buffer of frames (some 30 MB
        // at 1920 x 1080). Without it the lookahead runs on the writer's thread; the pictures
        // come out the same, bit for bit.
        bool lookaheadThread = true;
        // Fewer pictures inside x264 (one frame thread, three of lookahead, no B-frames), for
        // pictures above 1080p: a 3840 x 2160 encode holds some 230 MB of x264's frames this
        // way against 440 MB with two threads and more look-ahead, at a little more bits per
        // quality.
        bool fewerFramesInFlight = false;
        int timeScale = 600;            // video time base 1/timeScale
        // Pictures of another size are scaled to the movie's (a picture one column or row
        // larger loses it); without it they are refused.
        bool scalePictures = false;

        // A recording's movie: fragmented, at recordingBitsPerSecond(width, height,
        // bitRateScale) with recordingPreset, scaling pictures of another size, and no
        // sound track yet (the recording adds the ones it has).
        static Settings recording(std::filesystem::path path, int width, int height, double frameRate,
            double bitRateScale = 1.0);
    };

    // The microphone track of a recording (mono, 128 kb/s) and its system-sound track
    // (stereo, 160 kb/s); an export's one stereo track (160 kb/s).
    static SoundTrack microphoneTrack() { return {1, 128000, 48000}; }
    static SoundTrack systemSoundTrack() { return {2, 160000, 48000}; }
    static SoundTrack exportTrack() { return {2, 160000, 48000}; }

    // Creates the file and opens the encoders. Fails with a sentence when a setting is out
    // of range, an encoder does not open or the file cannot be created; nothing is left.
    static Result<std::unique_ptr<MovieWriter>> create(Settings settings);

    virtual ~MovieWriter() = default;

    // The encoder in use ("libx264").
    virtual std::string encoderName() const = 0;

    // One picture shown from `time` on. Its size must be the writer's unless the writer
    // scales pictures; anything else fails.
    virtual Status appendVideo(const Image& image, double time) = 0;

    // Whether appendVideo would take a picture at `time`: the times are kept in ticks of
    // 1/timeScale s and each picture needs a later tick than the one before, so pictures
    // that come bunched (after a stall, across a pause) can be left out before they fail.
    virtual bool takesPictureAt(double time) const = 0;

    // `frames` frames of interleaved float samples (the track's channel count) beginning
    // at frame `startFrame` of that track (at its sample rate). A gap before `startFrame`
    // is filled with silence; frames that overlap what was already given are dropped.
    virtual Status appendAudio(int track, const float* interleaved, int64_t frames, int64_t startFrame) = 0;

    // Seconds of sound accepted on a track so far.
    virtual double soundSeconds(int track) const = 0;

    // Flushes the encoders and closes the file. On failure the partial file is removed
    // (for `mp4`) and the error says so; a full disk gives kind `noSpace`.
    virtual Status finish() = 0;

    // Stops at once and removes the partial file.
    virtual void cancel() = 0;
};

} // namespace plim
