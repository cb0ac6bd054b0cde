#include "captions/transcription_pass.h"

#include "base/log.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace plim {

namespace {

// How long a stopped engine is waited for before its thread is left to end on its own.
constexpr auto stopGrace = std::chrono::seconds(2);

// What the engine's thread, the watchdog (the waiting caller) and a cancellation share.
struct PassState {
    std::mutex lock;
    std::condition_variable_any changed;
    bool done = false;
    bool engineReturned = false;
    std::optional<SpeechWords> result;
    std::stop_source engineStop;
    SpeechEngine::Progress progress;

    // Delivers `outcome` unless another arrived first; true for the one that wins.
    bool finish(SpeechWords outcome)
    {
        {
            std::lock_guard hold(lock);
            if (done)
                return false;
            done = true;
            result = std::move(outcome);
        }
        engineStop.request_stop();
        changed.notify_all();
        return true;
    }
};

} // namespace

SpeechWords TranscriptionPass::run(std::shared_ptr<SpeechEngine> engine, std::shared_ptr<const std::vector<float>> samples,
    double duration, double deadline, const SpeechEngine::Progress& progress, StopToken stop)
{
    auto state = std::make_shared<PassState>();
    state->progress = progress;
    std::thread worker([state, engine, samples, duration] {
        auto report = [&state](double fraction) {
            std::lock_guard hold(state->lock);
            if (!state->done && state->progress)
                state->progress(fraction);
        };
        SpeechWords words = engine->transcribe(*samples, duration, report, state->engineStop.get_token());
        state->finish(std::move(words));
        std::lock_guard hold(state->lock);
        state->engineReturned = true;
        state->changed.notify_all();
    });

    const auto until = std::chrono::steady_clock::now()
        + std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(deadline));
    {
        std::unique_lock hold(state->lock);
        state->changed.wait_until(hold, stop, until, [&] { return state->done; });
    }
    if (stop.stop_requested())
        state->finish(std::unexpected(CaptionError::cancelled()));
    else if (state->finish(std::unexpected(CaptionError::timedOut(deadline))))
        logLine(LogArea::captions, "transcription timed out after " + spelledTime(deadline));

    bool returned;
    {
        std::unique_lock hold(state->lock);
        returned = state->changed.wait_for(hold, stopGrace, [&] { return state->engineReturned; });
    }
    if (returned) {
        worker.join();
    } else {
        logLine(LogArea::captions, "the speech engine did not stop when asked; it is left to end on its own");
        worker.detach();
    }
    std::lock_guard hold(state->lock);
    return std::move(*state->result);
}

} // namespace plim
