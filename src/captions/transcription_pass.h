#pragma once
// One run of a speech engine under a deadline. The engine works on a thread of its own; the
// caller waits for the first of its result, its error, the deadline passing (timedOut) or
// the caller's stop (cancelled). That one is delivered, exactly once; the engine is then
// told to stop, and one that does not return within a moment is left to finish on its own
// thread, holding the engine and the samples until it does.
//
// Threads: run() blocks its caller. `progress` is called from the engine's thread until
// run() returns, never after.

#include "captions/speech_engine.h"

#include <memory>
#include <vector>

namespace plim {

struct TranscriptionPass {
    static SpeechWords run(std::shared_ptr<SpeechEngine> engine, std::shared_ptr<const std::vector<float>> samples,
        double duration, double deadline, const SpeechEngine::Progress& progress, StopToken stop);
};

} // namespace plim
