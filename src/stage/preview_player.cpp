#include "stage/preview_player.h"

#include "base/log.h"
#include "media/sound_reader.h"
#include "stage/stage_preview.h"
#include "stage/staging_setup.h"
#include "stage/staging_sound.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace plim {

namespace {

using SteadyClock = std::chrono::steady_clock;

double steadySeconds()
{
    return std::chrono::duration<double>(SteadyClock::now().time_since_epoch()).count();
}

constexpr int64_t soundBlockFrames = 2400; // 50 ms a write
// While playing, every this many frames is kept for scrubbing; every frame when still.
constexpr int64_t playCacheEvery = 8;
// Frames composed ahead of the play clock: enough to ride out a key frame's slow decode.
constexpr std::size_t aheadDepth = 4;
// Around a looping play's wrap the source seeks back to its start, which takes several
// frames' time: frames this close to the wrap, on either side, are composed further ahead.
constexpr int64_t wrapReach = 12;

// Composed frames by output slot, the least recently used let go past the byte cap.
class FrameCache {
public:
    explicit FrameCache(std::size_t cap) : m_cap(cap) {}

    void put(const PreviewFrame& frame)
    {
        const std::size_t bytes = static_cast<std::size_t>(frame.image.stride) * static_cast<std::size_t>(frame.image.height);
        if (bytes > m_cap)
            return;
        auto [it, added] = m_frames.insert_or_assign(frame.slot, Entry{frame, ++m_use});
        if (added)
            m_bytes += bytes;
        while (m_bytes > m_cap && !m_frames.empty()) {
            auto oldest = std::min_element(m_frames.begin(), m_frames.end(),
                [](const auto& a, const auto& b) { return a.second.use < b.second.use; });
            m_bytes -= static_cast<std::size_t>(oldest->second.frame.image.stride)
                * static_cast<std::size_t>(oldest->second.frame.image.height);
            m_frames.erase(oldest);
        }
    }
    const PreviewFrame* exact(int64_t slot)
    {
        auto it = m_frames.find(slot);
        if (it == m_frames.end())
            return nullptr;
        it->second.use = ++m_use;
        return &it->second.frame;
    }
    const PreviewFrame* nearest(int64_t slot) const
    {
        if (m_frames.empty())
            return nullptr;
        auto after = m_frames.lower_bound(slot);
        if (after == m_frames.begin())
            return &after->second.frame;
        auto before = std::prev(after);
        if (after == m_frames.end() || slot - before->first <= after->first - slot)
            return &before->second.frame;
        return &after->second.frame;
    }
    void clear()
    {
        m_frames.clear();
        m_bytes = 0;
    }

private:
    struct Entry {
        PreviewFrame frame;
        uint64_t use = 0;
    };
    std::map<int64_t, Entry> m_frames;
    std::size_t m_cap;
    std::size_t m_bytes = 0;
    uint64_t m_use = 0;
};

} // namespace

struct PreviewPlayer::State {
    // --- Set at open, then read-only ---
    PreviewPlayer::Callbacks callbacks;
    std::unique_ptr<SoundOutput> output; // null when there is no sound device

    // --- Requests, under `mutex` ---
    std::mutex mutex;
    std::condition_variable wake;
    struct Requests {
        std::optional<StagingJob> job;
        std::optional<std::pair<int, int>> size;
        std::optional<bool> raw;
        std::optional<std::pair<double, bool>> seek;
        int step = 0;
        std::optional<bool> play;
        std::optional<double> rate;
        std::optional<bool> loop;
        bool any() const { return job || size || raw || seek || step != 0 || play || rate || loop; }
    } requests;
    bool stopping = false;

    // --- Published by the drawing thread ---
    std::atomic<double> position{0};
    std::atomic<double> duration{0};
    std::atomic<double> fps{60};
    std::atomic<double> rate{1};
    std::atomic<bool> playing{false};
    std::atomic<bool> soundOn{false};
    std::atomic<bool> looping{false};
    std::atomic<int64_t> shown{0}, late{0}, dropped{0};

    // --- The drawing thread's own ---
    std::unique_ptr<StagePreview> preview;
    FrameCache cache;
    bool raw = false;
    int64_t slot = 0;          // the frame shown
    int64_t frameCount = 1;
    // Play counts frames on from where it started, past the end when it loops: play frame
    // `lapStart + slot` is the one shown, and the play clock runs in those frames' time.
    int64_t lapStart = 0;
    std::atomic<double> composeSeconds{0.01}; // running estimate of one frame's drawing
    // The play clock: output seconds = basePosition + (steady - baseSteady) × rate, or
    // basePosition + heard seconds while sound plays.
    double basePosition = 0;
    double baseSteady = 0;
    bool clockOnSound = false;
    bool soundMade = false; // the first mix is made after the first frame

    // --- The sound thread's, handed over under `soundMutex` ---
    std::mutex soundMutex;
    std::condition_variable soundWake;
    std::unique_ptr<StagingSound> sound; // the mix of the current edit; null without sound
    std::shared_ptr<const StagingJob> soundJob; // what `sound` refers to
    uint64_t soundRun = 0;     // bumped to start or stop a run
    std::optional<double> soundFrom; // output seconds the current run starts at; none: silent
    bool soundStopping = false;
    std::atomic<bool> soundDrained{false}; // the run has written all of its mix
    std::atomic<uint64_t> soundStarted{0}; // the run the sound thread has flushed and begun
    // Frames written by the current run where each new lap of a looping mix begins.
    std::mutex lapMutex;
    std::vector<int64_t> soundLaps;

    // --- Frames composed ahead while playing forward, under `mutex`. While `aheadOn` the
    // composer thread owns `preview`; the drawing thread uses it again after stopAhead(). ---
    std::condition_variable aheadWake; // the composer's
    bool aheadOn = false;
    bool composing = false; // the composer is drawing a frame now
    int64_t aheadNext = 0;  // the next play frame it composes (its slot is that modulo aheadFrames)
    int64_t aheadEnd = 0;   // one past the last play frame
    int64_t aheadFrames = 1;
    bool aheadRaw = false;
    struct Ahead {
        PreviewFrame frame;
        int64_t at = 0; // its play frame
    };
    std::deque<Ahead> ready; // composed, in play order
    std::optional<Error> aheadError;

    std::thread drawing;
    std::thread composer;
    std::thread soundThread;

    State(PreviewPlayer::Callbacks c, std::size_t cacheBytes) : callbacks(std::move(c)), cache(cacheBytes) {}

    // ---------------- Drawing thread ----------------

    double slotTime(int64_t s) const { return static_cast<double>(s) / fps.load(); }
    int64_t slotAt(double t) const
    {
        return std::clamp<int64_t>(RenderRules::slotOf(std::max(0.0, t), fps.load()), 0, frameCount - 1);
    }

    void fail(const Error& error)
    {
        logLine(LogArea::main, "the preview could not draw: " + error.sentence);
        if (callbacks.failed)
            callbacks.failed(error);
    }

    void hand(const PreviewFrame& frame)
    {
        position.store(frame.outputTime);
        if (frame.exact)
            ++shown;
        if (callbacks.frame)
            callbacks.frame(frame);
    }

    // Draws slot `s`; on the drawing thread, or on the composer's while it owns the preview.
    Result<PreviewFrame> composeShot(int64_t s, bool rawPicture)
    {
        const double started = steadySeconds();
        auto shot = PLIM_TRY(preview->shot(slotTime(s), rawPicture));
        composeSeconds.store(0.8 * composeSeconds.load() + 0.2 * (steadySeconds() - started));
        return PreviewFrame{std::move(shot.image), slotTime(s), s, shot.placement, true, rawPicture};
    }

    std::optional<PreviewFrame> compose(int64_t s)
    {
        auto frame = composeShot(s, raw);
        if (!frame) {
            fail(frame.error());
            return std::nullopt;
        }
        return std::move(*frame);
    }

    // Hands the preview to the composer, which draws from slot `from` on.
    void startAhead(int64_t from)
    {
        {
            std::lock_guard lock(mutex);
            aheadOn = true;
            aheadNext = from;
            aheadFrames = frameCount;
            aheadEnd = looping.load() ? std::numeric_limits<int64_t>::max() : frameCount;
            aheadRaw = raw;
            ready.clear();
            aheadError.reset();
        }
        aheadWake.notify_all();
    }

    // Takes the preview back: waits out a frame being drawn and lets the drawn ones go.
    void stopAhead()
    {
        std::unique_lock lock(mutex);
        aheadOn = false;
        wake.wait(lock, [&] { return !composing; });
        ready.clear();
        aheadError.reset();
    }

    // Lets the composer get ahead before the clock starts, so play does not open on drops.
    void primeAhead()
    {
        std::unique_lock lock(mutex);
        wake.wait_for(lock, std::chrono::milliseconds(300),
            [&] { return stopping || requests.any() || aheadError || ready.size() >= 2 || aheadNext >= aheadEnd; });
    }

    // Draws the frame at slot `s` now (from the cache when it holds it) and shows it.
    void show(int64_t s)
    {
        slot = s;
        if (const PreviewFrame* cached = cache.exact(s)) {
            hand(*cached);
            return;
        }
        if (auto frame = compose(s)) {
            cache.put(*frame);
            hand(*frame);
        }
    }

    void updateEdit()
    {
        frameCount = std::max<int64_t>(1, preview->frameCount());
        fps.store(preview->fps());
        duration.store(preview->outputDuration());
        slot = std::clamp<int64_t>(slot, 0, frameCount - 1);
    }

    // The mix for the preview's current job, handed to the sound thread.
    void remakeSound()
    {
        if (!output)
            return;
        auto job = std::make_shared<const StagingJob>(preview->job());
        std::unique_ptr<StagingSound> mix;
        if (auto opened = preview->openSound(*job))
            mix = std::move(*opened);
        else
            logLine(LogArea::main, "the preview plays without sound: " + opened.error().sentence);
        std::lock_guard lock(soundMutex);
        sound = std::move(mix);
        soundJob = std::move(job);
        soundOn.store(sound != nullptr);
    }

    // Starts (or, with nothing, stops) the sound from output second `from`.
    void runSound(std::optional<double> from)
    {
        if (!output)
            return;
        {
            std::lock_guard laps(lapMutex);
            soundLaps.clear();
        }
        std::lock_guard lock(soundMutex);
        soundFrom = sound ? from : std::nullopt;
        ++soundRun;
        soundDrained.store(false);
        soundWake.notify_all();
    }

    double clock()
    {
        if (clockOnSound) {
            const int64_t heard = output->playedFrames();
            double at = basePosition + static_cast<double>(heard) / output->rate();
            {
                // A looping mix starts each lap over at the start of the edit's frames.
                std::lock_guard laps(lapMutex);
                const auto lap = std::upper_bound(soundLaps.begin(), soundLaps.end(), heard);
                if (lap != soundLaps.begin())
                    at = slotTime(frameCount * (lap - soundLaps.begin()))
                        + static_cast<double>(heard - *std::prev(lap)) / output->rate();
            }
            // The mix ended (or the run never began): the steady clock takes over from here.
            if (soundDrained.load() && heard >= output->writtenFrames()) {
                basePosition = at;
                baseSteady = steadySeconds();
                clockOnSound = false;
            }
            return at;
        }
        return basePosition + (steadySeconds() - baseSteady) * rate.load();
    }

    void startClock()
    {
        lapStart = 0;
        if (rate.load() > 0) {
            startAhead(slot + 1);
            primeAhead();
        }
        basePosition = slotTime(slot);
        baseSteady = steadySeconds();
        clockOnSound = output && soundOn.load() && rate.load() == 1.0;
        runSound(clockOnSound ? std::optional<double>(basePosition) : std::nullopt);
        if (clockOnSound) {
            // Wait until the sound thread has dropped the old run's queue, so the clock
            // starts from this run's first frame.
            const uint64_t run = [&] {
                std::lock_guard lock(soundMutex);
                return soundRun;
            }();
            for (int i = 0; i < 200 && soundStarted.load() < run; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void setPlaying(bool on)
    {
        if (on && rate.load() > 0 && slot >= frameCount - 1)
            slot = 0; // play from the start again after the end
        if (on && rate.load() < 0 && slot <= 0)
            on = false;
        const bool was = playing.exchange(on);
        if (on) {
            startClock();
        } else {
            stopAhead();
            if (was)
                runSound(std::nullopt);
        }
        if (was != on && callbacks.playing)
            callbacks.playing(on);
    }

    // Waits until the play clock reaches output second `at` (forward) or falls to it
    // (backward); false when a request came first.
    bool waitFor(double at, bool forward)
    {
        std::unique_lock lock(mutex);
        for (;;) {
            if (stopping || requests.any())
                return false;
            lock.unlock();
            const double now = clock();
            lock.lock();
            const double ahead = forward ? at - now : now - at;
            if (ahead <= 0)
                return true;
            const double r = std::abs(rate.load());
            const double wait = std::clamp(ahead / std::max(r, 0.01), 0.0005, 0.02);
            wake.wait_for(lock, std::chrono::duration<double>(wait));
        }
    }

    // One frame of real-time play.
    void playOne()
    {
        const double r = rate.load();
        if (r > 0) {
            if (slot >= frameCount - 1 && !looping.load()) {
                setPlaying(false);
                return;
            }
            const int64_t at = lapStart + slot;
            if (!aheadOn)
                startAhead(at + 1);
            std::optional<Ahead> frame;
            std::optional<Error> failure;
            {
                std::unique_lock lock(mutex);
                for (;;) {
                    if (stopping || requests.any())
                        return;
                    if (aheadError) {
                        failure = std::move(aheadError);
                        break;
                    }
                    lock.unlock();
                    const double now = clock();
                    lock.lock();
                    // Frames whose turn has ended are let go; the composer skips to one it
                    // can still draw in time.
                    const int64_t due = RenderRules::slotOf(now, fps.load());
                    while (!ready.empty() && ready.front().at < std::min(due, aheadEnd - 1))
                        ready.pop_front();
                    const int64_t reachable = RenderRules::slotOf(now + composeSeconds.load() * r, fps.load());
                    if (aheadNext < reachable) {
                        aheadNext = std::min(reachable, aheadEnd - 1);
                        aheadWake.notify_all();
                    }
                    if (!ready.empty()) {
                        frame = std::move(ready.front());
                        ready.pop_front();
                        aheadWake.notify_all();
                        break;
                    }
                    if (aheadNext >= aheadEnd && !composing) {
                        // Every frame to the end was let go: show the last one.
                        aheadNext = aheadEnd - 1;
                        aheadWake.notify_all();
                    }
                    wake.wait_for(lock, std::chrono::milliseconds(5));
                }
            }
            if (failure) {
                fail(*failure);
                setPlaying(false);
                return;
            }
            const int64_t next = frame->at;
            dropped += std::max<int64_t>(0, next - at - 1);
            if (frame->frame.slot % playCacheEvery == 0)
                cache.put(frame->frame);
            if (!waitFor(slotTime(next), true))
                return;
            if (clock() >= slotTime(next + 1))
                ++late;
            slot = frame->frame.slot;
            lapStart = next - slot;
            hand(frame->frame);
        } else {
            if (slot <= 0) {
                setPlaying(false);
                return;
            }
            // Backwards: frame by frame, each as the clock reaches it.
            if (!waitFor(slotTime(slot), false))
                return;
            const int64_t next = std::clamp<int64_t>(RenderRules::slotOf(clock(), fps.load()), 0, slot - 1);
            slot = next;
            show(next);
        }
    }

    void drawLoop()
    {
        for (;;) {
            Requests r;
            {
                std::unique_lock lock(mutex);
                if (!playing.load())
                    wake.wait(lock, [&] { return stopping || requests.any(); });
                if (stopping)
                    return;
                r = std::move(requests);
                requests = {};
            }
            // A request takes the preview back from the composer; plain passes leave it ahead.
            if (aheadOn && r.any())
                stopAhead();
            bool redraw = false;
            bool restartClock = false;
            if (r.job) {
                if (auto made = preview->setJob(*r.job); !made) {
                    fail(made.error());
                } else {
                    cache.clear();
                    updateEdit();
                    remakeSound();
                    soundMade = true;
                    redraw = restartClock = true;
                }
            }
            if (r.size) {
                if (auto made = preview->setOutputSize(r.size->first, r.size->second); !made)
                    fail(made.error());
                else
                    cache.clear();
                redraw = true;
            }
            if (r.raw && *r.raw != raw) {
                raw = *r.raw;
                cache.clear();
                redraw = true;
            }
            if (r.rate) {
                rate.store(*r.rate);
                restartClock = true;
            }
            if (r.loop && *r.loop != looping.load()) {
                looping.store(*r.loop);
                restartClock = true;
            }
            if (r.step != 0) {
                setPlaying(false);
                slot = std::clamp<int64_t>(slot + r.step, 0, frameCount - 1);
                redraw = true;
            }
            if (r.seek) {
                const int64_t target = slotAt(r.seek->first);
                if (r.seek->second && !cache.exact(target))
                    if (const PreviewFrame* near = cache.nearest(target)) {
                        PreviewFrame first = *near;
                        first.exact = false;
                        hand(first);
                    }
                slot = target;
                redraw = restartClock = true;
            }
            if (r.play && *r.play && !soundMade) {
                remakeSound();
                soundMade = true;
            }
            if (redraw)
                show(slot);
            if (!soundMade) {
                // The sound opens once the first frame is up, so that it is not kept waiting.
                remakeSound();
                soundMade = true;
            }
            // Last: starting play hands the preview to the composer.
            if (r.play && *r.play != playing.load())
                setPlaying(*r.play);
            else if (restartClock && playing.load())
                startClock();
            if (playing.load())
                playOne();
        }
    }

    // ---------------- Composer thread ----------------

    // How many composed frames may wait for their turn, under `mutex`.
    std::size_t aheadRoom() const
    {
        const int64_t at = aheadNext % aheadFrames;
        const bool nearWrap = aheadEnd > aheadFrames && (at < wrapReach || at >= aheadFrames - wrapReach);
        return nearWrap ? static_cast<std::size_t>(wrapReach) : aheadDepth;
    }

    void composeLoop()
    {
        std::unique_lock lock(mutex);
        for (;;) {
            aheadWake.wait(lock, [&] {
                return stopping || (aheadOn && !aheadError && ready.size() < aheadRoom() && aheadNext < aheadEnd);
            });
            if (stopping)
                return;
            const int64_t at = aheadNext++;
            const bool rawPicture = aheadRaw;
            composing = true;
            lock.unlock();
            auto frame = composeShot(at % aheadFrames, rawPicture);
            lock.lock();
            composing = false;
            if (aheadOn) {
                if (frame)
                    ready.push_back({std::move(*frame), at});
                else
                    aheadError = frame.error();
            }
            wake.notify_all();
        }
    }

    // ---------------- Sound thread ----------------

    void soundLoop()
    {
        uint64_t run = 0;
        for (;;) {
            std::optional<double> from;
            {
                std::unique_lock lock(soundMutex);
                soundWake.wait(lock, [&] { return soundStopping || soundRun != run; });
                if (soundStopping)
                    return;
                run = soundRun;
                from = soundFrom;
            }
            output->flush();
            soundStarted.store(run);
            if (!from)
                continue;
            bool sought = false;
            const double start = *from;
            for (;;) {
                std::unique_lock lock(soundMutex);
                if (soundStopping || soundRun != run || !sound)
                    break;
                if (!sought) {
                    sound->seek(start);
                    sought = true;
                }
                auto block = sound->next(soundBlockFrames);
                lock.unlock();
                if (!block) {
                    logLine(LogArea::main, "the preview's sound stopped: " + block.error().sentence);
                    soundDrained.store(true);
                    break;
                }
                if (!*block && looping.load()) {
                    // On from the start, where the pictures' next lap begins.
                    {
                        std::lock_guard laps(lapMutex);
                        soundLaps.push_back(output->writtenFrames());
                    }
                    std::lock_guard again(soundMutex);
                    if (soundRun == run && sound)
                        sound->seek(0);
                    continue;
                }
                if (!*block) {
                    soundDrained.store(true);
                    break;
                }
                const auto& samples = (*block)->samples;
                if (auto written = output->write(samples.data(), static_cast<int64_t>(samples.size() / soundChannels));
                    !written) {
                    logLine(LogArea::main, "the preview's sound stopped: " + written.error().sentence);
                    soundDrained.store(true);
                    break;
                }
            }
        }
    }
};

Result<std::unique_ptr<PreviewPlayer>> PreviewPlayer::open(const StagingJob& job, Options options, Callbacks callbacks)
{
    auto state = std::make_unique<State>(std::move(callbacks), options.cacheBytes);
    StagingJob sized = job;
    sized.canvas = RenderRules::PixelSize{std::max(2, options.width / 2 * 2), std::max(2, options.height / 2 * 2)};
    state->preview = PLIM_TRY(StagePreview::open(sized, std::move(options.movie)));
    state->preview->setPicturesFitted(true);
    state->updateEdit();
    if (options.sound) {
        if (auto opened = options.sound->open(soundSampleRate, soundChannels))
            state->output = std::move(options.sound);
        else
            logLine(LogArea::main, "the preview plays without sound: " + opened.error().sentence);
    }
    State* s = state.get();
    if (s->output)
        s->soundThread = std::thread([s] { s->soundLoop(); });
    s->composer = std::thread([s] { s->composeLoop(); });
    s->drawing = std::thread([s] { s->drawLoop(); });
    {
        std::lock_guard lock(s->mutex);
        s->requests.seek = {0.0, false};
    }
    s->wake.notify_all();
    return std::unique_ptr<PreviewPlayer>(new PreviewPlayer(std::move(state)));
}

PreviewPlayer::PreviewPlayer(std::unique_ptr<State> state) : m_state(std::move(state)) {}

PreviewPlayer::~PreviewPlayer()
{
    {
        std::lock_guard lock(m_state->mutex);
        m_state->stopping = true;
    }
    m_state->wake.notify_all();
    m_state->aheadWake.notify_all();
    if (m_state->drawing.joinable())
        m_state->drawing.join();
    if (m_state->composer.joinable())
        m_state->composer.join();
    {
        std::lock_guard lock(m_state->soundMutex);
        m_state->soundStopping = true;
    }
    m_state->soundWake.notify_all();
    if (m_state->soundThread.joinable())
        m_state->soundThread.join();
}

namespace {

template <typename Change>
void request(std::mutex& mutex, std::condition_variable& wake, Change change)
{
    {
        std::lock_guard lock(mutex);
        change();
    }
    wake.notify_all();
}

} // namespace

void PreviewPlayer::setOutputSize(int width, int height)
{
    request(m_state->mutex, m_state->wake, [&] { m_state->requests.size = {width, height}; });
}

void PreviewPlayer::setJob(const StagingJob& job)
{
    request(m_state->mutex, m_state->wake, [&] { m_state->requests.job = job; });
}

void PreviewPlayer::showRecording(bool raw)
{
    request(m_state->mutex, m_state->wake, [&] { m_state->requests.raw = raw; });
}

void PreviewPlayer::seek(double outputTime, bool scrubbing)
{
    request(m_state->mutex, m_state->wake, [&] { m_state->requests.seek = {outputTime, scrubbing}; });
}

void PreviewPlayer::step(int frames)
{
    request(m_state->mutex, m_state->wake, [&] { m_state->requests.step += frames; });
}

void PreviewPlayer::setLooping(bool looping)
{
    request(m_state->mutex, m_state->wake, [&] { m_state->requests.loop = looping; });
}

void PreviewPlayer::play()
{
    request(m_state->mutex, m_state->wake, [&] { m_state->requests.play = true; });
}

void PreviewPlayer::pause()
{
    request(m_state->mutex, m_state->wake, [&] { m_state->requests.play = false; });
}

void PreviewPlayer::setRate(double rate)
{
    if (!std::isfinite(rate))
        return;
    rate = std::clamp(rate, -2.0, 4.0);
    if (rate == 0) {
        pause();
        return;
    }
    request(m_state->mutex, m_state->wake, [&] { m_state->requests.rate = rate; });
}

double PreviewPlayer::position() const { return m_state->position.load(); }
double PreviewPlayer::duration() const { return m_state->duration.load(); }
double PreviewPlayer::fps() const { return m_state->fps.load(); }
double PreviewPlayer::rate() const { return m_state->rate.load(); }
bool PreviewPlayer::isPlaying() const { return m_state->playing.load(); }
bool PreviewPlayer::hasSound() const { return m_state->soundOn.load(); }

PreviewPlayer::Counters PreviewPlayer::counters() const
{
    return {m_state->shown.load(), m_state->late.load(), m_state->dropped.load()};
}

} // namespace plim
