#include "app/voiceover_recorder.h"

#include "app/voiceover_take.h"
#include "base/clock.h"
#include "base/dates.h"
#include "base/files.h"
#include "base/log.h"
#include "capture/array_mic.h"
#include "library/plim_identity.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace plim {

namespace {

// How often the take's header is brought up to date and the file put on the disk: what a
// crash can cost.
constexpr auto syncEvery = std::chrono::seconds(1);
// A gap longer than this (the server stalled for minutes) is not filled with silence.
constexpr double longestGap = 10.0;

} // namespace

struct VoiceoverRecorder::State {
    Settings settings;
    fs::path folder;
    VoiceoverNote note;
    std::unique_ptr<SoundSource> source;
    std::unique_ptr<TakeWriter> writer;
    ArrayMic::Treatment treatment; // the source's thread only
    int rate = 48000;
    int64_t maxFrames = INT64_MAX;

    std::mutex lock;
    std::condition_variable wake;
    double startedAt = 0;               // uptime when the source started
    std::optional<double> zero;         // uptime of the take's first frame
    struct Early {
        std::vector<float> mono;
        double uptime;
        bool joins;
    };
    std::vector<Early> early;           // blocks that came before `zero` was known
    bool placedAny = false;
    int64_t accepted = 0;               // frames placed in the take, written or pending
    std::vector<float> pending;
    bool stopping = false;
    std::optional<std::string> trouble;
    std::atomic<float> level = 0;
    std::thread writing;
    bool ended = false;                 // finished or cancelled

    void onBlock(SoundBlock&& block)
    {
        ArrayMic::Buffer buffer{std::move(block.samples), block.channels, block.sampleRate};
        buffer = treatment.treated(std::move(buffer));
        std::vector<float> mono = buffer.channels == 1 ? std::move(buffer.samples) : ArrayMic::downmixedToMono(buffer).samples;
        level.store(ArrayMic::peak(mono));
        {
            std::lock_guard guard(lock);
            if (stopping)
                return;
            if (!zero)
                early.push_back({std::move(mono), block.uptime, block.joinsPrevious});
            else
                place(mono, block.uptime, block.joinsPrevious);
        }
        wake.notify_one();
    }

    void cue(double uptime)
    {
        {
            std::lock_guard guard(lock);
            if (zero)
                return;
            zero = uptime;
            for (const auto& block : early)
                place(block.mono, block.uptime, block.joins);
            early.clear();
        }
        wake.notify_one();
    }

    // Puts a block at its time in the take (under the lock): a gap before it is silence,
    // what overlaps frames already placed (or comes before the take began) is left out.
    void place(const std::vector<float>& mono, double uptime, bool joins)
    {
        int64_t at = accepted;
        if (!placedAny || !joins)
            at = std::llround((uptime - *zero) * rate);
        placedAny = true;
        if (at - accepted > int64_t(longestGap * rate))
            at = accepted; // a stall of minutes is not kept as silence
        at = std::min(at, maxFrames);
        if (at > accepted) {
            pending.insert(pending.end(), size_t(at - accepted), 0.0f);
            accepted = at;
        }
        const int64_t skip = accepted - at;
        const int64_t take = std::min(int64_t(mono.size()) - skip, maxFrames - accepted);
        if (take > 0) {
            pending.insert(pending.end(), mono.begin() + skip, mono.begin() + skip + take);
            accepted += take;
        }
    }

    void write()
    {
        auto lastSync = std::chrono::steady_clock::now();
        for (;;) {
            std::vector<float> chunk;
            bool last;
            {
                std::unique_lock guard(lock);
                wake.wait_for(guard, std::chrono::milliseconds(200),
                    [&] { return stopping || pending.size() >= size_t(rate / 4); });
                chunk.swap(pending);
                last = stopping;
            }
            Status written = trouble ? Status{} : writer->append(chunk.data(), int64_t(chunk.size()));
            const auto now = std::chrono::steady_clock::now();
            if (written && (last || now - lastSync >= syncEvery)) {
                written = writer->sync();
                lastSync = now;
            }
            if (!written) {
                std::lock_guard guard(lock);
                if (!trouble) {
                    trouble = written.error().sentence + "; the take keeps what was written before.";
                    logLine(LogArea::main, *trouble);
                }
            }
            if (last)
                return;
        }
    }
};

VoiceoverRecorder::VoiceoverRecorder(std::unique_ptr<State> state) : m_state(std::move(state)) {}

Result<std::unique_ptr<VoiceoverRecorder>> VoiceoverRecorder::start(Settings settings)
{
    auto microphone = createPulseSoundSource(SoundSource::Kind::microphone, settings.device);
    if (!microphone)
        return fail("No voiceover was recorded: " + microphone.error().sentence, microphone.error().kind);
    return start(std::move(settings), std::move(*microphone));
}

Result<std::unique_ptr<VoiceoverRecorder>> VoiceoverRecorder::start(Settings settings,
    std::unique_ptr<SoundSource> microphone)
{
    auto state = std::make_unique<State>();
    state->folder = voiceoversFolder(settings.libraryFolder);
    std::error_code ec;
    fs::create_directories(state->folder, ec);
    if (ec)
        return fail("No voiceover was recorded: the folder " + state->folder.string() + " for takes in progress could "
            "not be made (" + ec.message() + "). Check that the library folder can be written to.");
    VoiceoverNote& note = state->note;
    note.id = makeUuid();
    note.movie = fs::absolute(settings.movie, ec);
    if (auto identity = PlimIdentity::read(baseName(settings.movie), settings.movie.parent_path()))
        note.plimID = identity->uuid;
    note.start = settings.sourceStart;
    note.process = RecordingMarker::ofThisProcess(false);
    if (auto written = note.write(state->folder); !written)
        return fail("No voiceover was recorded: its note in " + state->folder.string() + " could not be written ("
            + written.error().sentence + ").", written.error().kind);
    state->rate = microphone->sampleRate();
    if (settings.maxSeconds && *settings.maxSeconds > 0)
        state->maxFrames = std::llround(*settings.maxSeconds * state->rate);
    auto writer = TakeWriter::create(VoiceoverNote::takeIn(state->folder, note.id), state->rate);
    if (!writer) {
        removeTake(state->folder, note.id);
        return fail("No voiceover was recorded: " + writer.error().sentence + ".", writer.error().kind);
    }
    state->writer = std::move(*writer);
    state->source = std::move(microphone);
    state->settings = std::move(settings);

    State* s = state.get();
    if (auto started = s->source->start([s](SoundBlock&& block) { s->onBlock(std::move(block)); }); !started) {
        s->writer->discard();
        removeTake(s->folder, note.id);
        return fail("No voiceover was recorded: " + started.error().sentence, started.error().kind);
    }
    s->startedAt = UptimeClock::shared().uptime();
    if (s->settings.cueAtStart)
        s->cue(s->startedAt);
    s->writing = std::thread([s] { s->write(); });
    logLine(LogArea::main, "recording a voiceover for " + s->settings.movie.string() + " at "
            + std::to_string(s->settings.sourceStart) + " s from " + s->source->deviceName() + " into "
            + s->writer->path().string());
    return std::unique_ptr<VoiceoverRecorder>(new VoiceoverRecorder(std::move(state)));
}

VoiceoverRecorder::~VoiceoverRecorder()
{
    if (!m_state->ended)
        cancel();
}

double VoiceoverRecorder::seconds() const
{
    std::lock_guard guard(m_state->lock);
    return double(m_state->accepted) / m_state->rate;
}

float VoiceoverRecorder::level() const { return m_state->level.load(); }

std::optional<std::string> VoiceoverRecorder::trouble() const
{
    std::lock_guard guard(m_state->lock);
    return m_state->trouble;
}

void VoiceoverRecorder::cue(double uptime) { m_state->cue(uptime); }

const std::string& VoiceoverRecorder::takeID() const { return m_state->note.id; }

const fs::path& VoiceoverRecorder::takePath() const { return m_state->writer->path(); }

void VoiceoverRecorder::stop()
{
    m_state->source->stop();
    m_state->cue(m_state->startedAt);
    {
        std::lock_guard guard(m_state->lock);
        m_state->stopping = true;
    }
    m_state->wake.notify_one();
    if (m_state->writing.joinable())
        m_state->writing.join();
    m_state->ended = true;
}

Result<PlimEdits::Voiceover> VoiceoverRecorder::finish(PlimDocument& document)
{
    stop();
    State& s = *m_state;
    if (s.writer->frames() == 0) {
        s.writer->discard();
        removeTake(s.folder, s.note.id);
        return fail("No sound came from the microphone (" + s.source->deviceName()
            + "), so no voiceover was added. Check that it is plugged in and not muted, then record again.");
    }
    return joinTake(s.writer->path(), s.note, document);
}

void VoiceoverRecorder::cancel()
{
    if (m_state->ended)
        return; // a finished take is the plim's, or kept for the next start
    stop();
    m_state->writer->discard();
    removeTake(m_state->folder, m_state->note.id);
}

} // namespace plim
