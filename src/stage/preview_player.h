#pragma once
// Plays a plim's staged picture for the editor's preview, with its sound: one StagePreview
// (decoder and renderer kept open, seeking on demand) drawn at the preview's size, a
// bounded cache of composed frames for scrubbing, and real-time play paced by a clock: the
// sound output's heard position while sound plays, the steady clock otherwise. A frame
// that could not be drawn before its turn is skipped (dropped); one drawn after its turn
// has passed is still shown, and counted late.
//
// Threads: the public functions may be called from any one thread (the interface
// thread); apart from open() and the destructor they only leave a request for the
// player's drawing thread and return at once. Requests coalesce: of several seeks only the
// last is drawn. The callbacks run on the drawing thread; they hand their data over to the
// caller's thread and return quickly, and may call the player's requests. The sound is
// mixed (the share's sound path: cuts, sped-up stretches, voiceovers ducking the
// recording) and written on a second thread of the player's. The destructor stops both
// threads and waits for them; no callback runs after it returns.

#include "base/error.h"
#include "base/image.h"
#include "media/movie_reader.h"
#include "stage/sound_output.h"
#include "stage/stage_renderer.h"
#include "stage/staging_engine.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace plim {

struct PreviewFrame {
    Image image;                        // the caller's to keep
    double outputTime = 0;              // seconds of output it shows
    int64_t slot = 0;                   // its output frame
    StageRenderer::Placement placement; // source pixels to image pixels
    bool exact = true;                  // false: a cached neighbour shown while the exact one is drawn
    bool raw = false;                   // the recording as recorded, not the staged picture
};

class PreviewPlayer {
public:
    struct Callbacks {
        std::function<void(const PreviewFrame&)> frame;
        std::function<void(bool playing)> playing; // play started or stopped (the end stops it too)
        std::function<void(const Error&)> failed;  // a frame or an edit could not be drawn
    };
    struct Options {
        int width = 1280; // output size
        int height = 800;
        // Null, or one that cannot be opened: the preview plays silently on the steady clock.
        std::unique_ptr<SoundOutput> sound;
        std::size_t cacheBytes = std::size_t(64) * 1280 * 800 * 4;
        // The job's movie already opened (SharePlim::read hands one over), or null.
        std::unique_ptr<MovieReader> movie;
    };
    struct Counters {
        int64_t shown = 0;   // frames handed to the callback
        int64_t late = 0;    // of those, handed after their turn had passed
        int64_t dropped = 0; // frames skipped while playing because their turn passed first
    };

    // Opens the movie and draws the first frame (handed to the callback from the drawing
    // thread). Fails with the sentence a render of the job would give.
    static Result<std::unique_ptr<PreviewPlayer>> open(const StagingJob& job, Options options, Callbacks callbacks);
    ~PreviewPlayer();
    PreviewPlayer(const PreviewPlayer&) = delete;
    PreviewPlayer& operator=(const PreviewPlayer&) = delete;

    // Draws at this size from now on; the frame shown is drawn again.
    void setOutputSize(int width, int height);
    // New edits, look or stage: the frame shown is drawn again with them at once; the
    // movie stays open.
    void setJob(const StagingJob& job);
    // The recording as recorded instead of the staged picture.
    void showRecording(bool raw);
    // Shows output second `outputTime`; `scrubbing` shows the nearest cached frame first.
    void seek(double outputTime, bool scrubbing = false);
    // Moves `frames` output frames on (back when negative) and pauses.
    void step(int frames);
    // Play from the start again at the end rather than stop, the frames after the end
    // composed ahead like any others and the sound carried on from its start.
    void setLooping(bool looping);
    void play();
    void pause();
    // Speed and direction: -2..4 (0 pauses); backwards plays frame by frame. Sound plays at 1 only.
    void setRate(double rate);

    double position() const;  // output seconds of the frame last shown
    double duration() const;  // output seconds of the current edit
    double fps() const;
    double rate() const;
    bool isPlaying() const;
    bool hasSound() const;    // a sound output is open and the edit has sound
    Counters counters() const;

private:
    struct State;
    explicit PreviewPlayer(std::unique_ptr<State> state);
    std::unique_ptr<State> m_state;
};

} // namespace plim
