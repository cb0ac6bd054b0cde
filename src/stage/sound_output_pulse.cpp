// The preview's sound through the PulseAudio client library on a threaded main loop: a
// playback stream of 32-bit float to the default output, about a tenth of a second
// queued, its heard position from the stream's own (interpolated) timing. A flush starts
// a new stream, whose clock starts from nothing.

#include "stage/sound_output.h"

#include "capture/pulse_client.h"

#include <algorithm>

namespace plim {

namespace {

class PulseSoundOutput final : public SoundOutput {
public:
    explicit PulseSoundOutput(std::string name) : m_name(std::move(name)) {}
    ~PulseSoundOutput() override
    {
        if (!m_stream)
            return;
        PulseLock lock(m_client.loop());
        closeStream();
    }

    Status connect() { return m_client.connect("No sound server answered, so the preview plays without sound."); }

    Status open(int rate, int channels) override
    {
        PulseLock lock(m_client.loop());
        m_spec = {PA_SAMPLE_FLOAT32LE, static_cast<uint32_t>(rate), static_cast<uint8_t>(channels)};
        if (!pa_sample_spec_valid(&m_spec))
            return fail(refused);
        m_rate = rate;
        m_frameBytes = pa_frame_size(&m_spec);
        return openStream();
    }

    Status write(const float* samples, int64_t frames) override
    {
        PulseLock lock(m_client.loop());
        const auto* bytes = reinterpret_cast<const uint8_t*>(samples);
        std::size_t left = static_cast<std::size_t>(frames) * m_frameBytes;
        while (left > 0) {
            if (!m_stream || !PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream)))
                return fail("The sound output went away, so the preview plays on without sound.");
            std::size_t room = pa_stream_writable_size(m_stream);
            if (room == static_cast<std::size_t>(-1))
                return fail("The sound output went away, so the preview plays on without sound.");
            if (room < m_frameBytes) {
                // The server may ask for less than it waits for before playing: play now.
                if (pa_operation* op = pa_stream_trigger(m_stream, nullptr, nullptr))
                    pa_operation_unref(op);
                pa_threaded_mainloop_wait(m_client.loop());
                continue;
            }
            const std::size_t n = std::min(left, room / m_frameBytes * m_frameBytes);
            if (pa_stream_write(m_stream, bytes, n, nullptr, 0, PA_SEEK_RELATIVE) < 0)
                return fail("The sound output refused the preview's sound, so it plays on without sound.");
            bytes += n;
            left -= n;
            m_written += static_cast<int64_t>(n / m_frameBytes);
        }
        return {};
    }

    void setPaused(bool paused) override
    {
        PulseLock lock(m_client.loop());
        m_paused = paused;
        if (m_stream)
            m_client.wait(pa_stream_cork(m_stream, paused ? 1 : 0, succeeded, m_client.loop()));
    }

    // A fresh stream, so that its clock starts again from nothing heard. The old one goes
    // once the new one is ready: an output left without streams may fall back to long
    // periods, and would start the next stream late.
    void flush() override
    {
        PulseLock lock(m_client.loop());
        pa_stream* old = m_stream;
        m_stream = nullptr;
        if (auto opened = openStream(); !opened)
            closeStream(); // write() says so
        std::swap(old, m_stream);
        closeStream();
        m_stream = old;
    }

    int64_t playedFrames() const override
    {
        PulseLock lock(m_client.loop());
        return std::clamp<int64_t>(streamFrames(), 0, m_written);
    }

    int64_t writtenFrames() const override
    {
        PulseLock lock(m_client.loop());
        return m_written;
    }

    double latency() const override
    {
        PulseLock lock(m_client.loop());
        pa_usec_t usec = 0;
        int negative = 0;
        if (!m_stream || pa_stream_get_latency(m_stream, &usec, &negative) < 0 || negative)
            return 0;
        return static_cast<double>(usec) / 1e6;
    }

    int rate() const override { return m_rate; }

private:
    static constexpr const char* refused = "The sound output refused the preview's sound, so it plays without sound.";

    static void succeeded(pa_stream* stream, int, void* loop) { PulseClient::signal(stream, loop); }

    // A playback stream of m_spec to the default output, about a tenth of a second queued;
    // with the lock held.
    Status openStream()
    {
        pa_channel_map map;
        pa_channel_map_init_extend(&map, m_spec.channels, PA_CHANNEL_MAP_DEFAULT);
        m_stream = pa_stream_new(m_client.context(), m_name.c_str(), &m_spec, &map);
        if (!m_stream)
            return fail(refused);
        m_written = 0;
        pa_stream_set_state_callback(m_stream, PulseClient::signal, m_client.loop());
        pa_stream_set_write_callback(m_stream, [](pa_stream* stream, size_t, void* loop) {
            PulseClient::signal(stream, loop);
        }, m_client.loop());
        pa_buffer_attr attr{};
        attr.maxlength = uint32_t(-1);
        attr.tlength = static_cast<uint32_t>(pa_usec_to_bytes(100000, &m_spec));
        // Playing starts (and starts again after running dry) once 20 ms wait.
        attr.prebuf = static_cast<uint32_t>(pa_usec_to_bytes(20000, &m_spec));
        attr.minreq = uint32_t(-1);
        auto flags = static_cast<pa_stream_flags_t>(
            PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
        if (m_paused)
            flags = static_cast<pa_stream_flags_t>(flags | PA_STREAM_START_CORKED);
        if (pa_stream_connect_playback(m_stream, nullptr, &attr, flags, nullptr, nullptr) < 0
            || !m_client.waitReady(m_stream))
            return fail(refused);
        return {};
    }

    void closeStream()
    {
        if (!m_stream)
            return;
        pa_stream_set_state_callback(m_stream, nullptr, nullptr);
        pa_stream_set_write_callback(m_stream, nullptr, nullptr);
        pa_stream_disconnect(m_stream);
        pa_stream_unref(m_stream);
        m_stream = nullptr;
    }

    // Frames the stream has played since it began, by its own clock; with the lock held.
    int64_t streamFrames() const
    {
        pa_usec_t usec = 0;
        if (!m_stream || pa_stream_get_time(m_stream, &usec) < 0)
            return 0;
        return static_cast<int64_t>(static_cast<double>(usec) * m_rate / 1e6);
    }

    std::string m_name;
    PulseClient m_client;
    pa_stream* m_stream = nullptr;
    pa_sample_spec m_spec{};
    int m_rate = 48000;
    std::size_t m_frameBytes = 8;
    int64_t m_written = 0; // frames written to this stream
    bool m_paused = false;
};

} // namespace

Result<std::unique_ptr<SoundOutput>> SoundOutput::pulse(const std::string& streamName)
{
    auto output = std::make_unique<PulseSoundOutput>(streamName);
    PLIM_TRY(output->connect());
    return std::unique_ptr<SoundOutput>(std::move(output));
}

} // namespace plim
