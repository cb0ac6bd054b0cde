#pragma once
// Records narration from the microphone for one plim: the microphone through the array-mic
// treatment the screen recorder applies, into a take in the library's Voiceovers folder
// (app/voiceover_take.h) so a crash leaves it there to be salvaged; finish() joins the take
// to the plim's edits at the source time it was started at, cancel() drops it.
//
// The caller plays the plim: the take's first sample is the instant start() returns, when
// the caller starts playing from the playhead whose source time it gave; or, for a player
// that takes a moment to get going, the instant it gives cue() once the picture moves.
//
// Threads: start(), finish(), cancel() and the destructor from one thread; seconds(),
// level() and trouble() from any. The microphone's blocks arrive on the sound source's
// thread and are written on a thread of the recorder's own, which puts the take on the
// disk every second.

#include "base/error.h"
#include "capture/sound_source.h"
#include "library/plim_edits.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace plim {

namespace fs = std::filesystem;

class PlimDocument;

class VoiceoverRecorder {
public:
    struct Settings {
        fs::path libraryFolder;   // its Voiceovers folder holds the take while it is recorded
        fs::path movie;           // the plim's movie
        double sourceStart = 0;   // source seconds the take starts at
        std::optional<std::string> device; // the microphone; the default source when not set
        std::optional<double> maxSeconds;  // the take ends there (what comes later is left out)
        bool cueAtStart = true;            // false: the take begins at cue()
    };

    // Starts recording from the sound server's microphone.
    static Result<std::unique_ptr<VoiceoverRecorder>> start(Settings settings);
    // Starts recording from `microphone` (not started yet).
    static Result<std::unique_ptr<VoiceoverRecorder>> start(Settings settings, std::unique_ptr<SoundSource> microphone);

    // Cancels a take neither finished nor cancelled.
    ~VoiceoverRecorder();
    VoiceoverRecorder(const VoiceoverRecorder&) = delete;
    VoiceoverRecorder& operator=(const VoiceoverRecorder&) = delete;

    // Seconds recorded so far; they stop at maxSeconds.
    double seconds() const;
    // The loudest sample of the last tenth of a second, 0 to 1.
    float level() const;
    // Why the take stopped growing (the disk is full, the microphone went away), once it has.
    std::optional<std::string> trouble() const;
    // The uptime instant (CLOCK_MONOTONIC seconds) of the take's first sample, when it was
    // started without one; sound heard before it is left out. Later calls change nothing; a
    // take finished uncued begins where it was started.
    void cue(double uptime);
    const std::string& takeID() const;
    const fs::path& takePath() const;

    // Stops and joins the take to `document` (the plim's, which may be saved), saving it.
    // Fails with a whole sentence when nothing was heard (the take is dropped) or the take
    // could not join (it stays in the Voiceovers folder for the next start).
    Result<PlimEdits::Voiceover> finish(PlimDocument& document);
    // Stops and drops the take.
    void cancel();

private:
    struct State;
    explicit VoiceoverRecorder(std::unique_ptr<State> state);
    void stop();
    std::unique_ptr<State> m_state;
};

} // namespace plim
