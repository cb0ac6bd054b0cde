// Sound through the PulseAudio client library on a threaded main loop: one record stream
// of 32-bit float at 48 kHz, read about every 10 ms, timed by the stream's own timing
// information.

#include "capture/sound_source.h"

#include "capture/pulse_client.h"

#include "base/clock.h"
#include "base/log.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace plim {

namespace {

constexpr int rate = 48000;
// Measured instants jitter by a few milliseconds around the sample clock, which itself
// drifts from the uptime clock by some parts per million: the timeline follows only the
// smoothed difference, beyond a dead band, at a rate no ear or lip-sync notices.
constexpr double errorSmoothing = 0.02;  // per block of about 10 ms
constexpr double driftDeadband = 0.008;
constexpr double maxSlew = 0.0005;       // seconds per second of sound
constexpr double reanchorBeyond = 0.040;

class PulseSoundSource final : public SoundSource {
public:
    explicit PulseSoundSource(Kind kind) : m_kind(kind) {}
    ~PulseSoundSource() override { stop(); }

    // Connects and resolves `device`; or, given `list`, fills it with the devices instead.
    Status connect(const std::optional<std::string>& device, std::vector<SoundDevice>* list = nullptr)
    {
        PLIM_TRY(m_client.connect(m_kind == Kind::microphone
                ? "The sound server did not answer, so the microphone is not recorded. The recording rolls without it."
                : "The sound server did not answer, so the computer's sound is not recorded. The recording rolls without it."));
        m_loop = m_client.loop();
        m_context = m_client.context();
        PulseLock lock(m_loop);
        return list ? listDevices(*list) : resolve(device);
    }

    Kind kind() const override { return m_kind; }
    std::string deviceName() const override { return m_device; }
    int channels() const override { return m_channels; }
    int sampleRate() const override { return rate; }

    Status start(BlockHandler onBlock) override
    {
        PulseLock lock(m_loop);
        m_onBlock = std::move(onBlock);
        pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, rate, static_cast<uint8_t>(m_channels)};
        pa_channel_map map;
        pa_channel_map_init_extend(&map, spec.channels, PA_CHANNEL_MAP_DEFAULT);
        m_stream = pa_stream_new(m_context, m_kind == Kind::microphone ? "Plim microphone" : "Plim computer sound",
            &spec, &map);
        if (!m_stream)
            return fail(whatFailed());
        pa_stream_set_read_callback(m_stream, [](pa_stream*, size_t, void* self) {
            static_cast<PulseSoundSource*>(self)->read();
        }, this);
        pa_stream_set_latency_update_callback(m_stream, [](pa_stream*, void* self) {
            static_cast<PulseSoundSource*>(self)->read();
        }, this);
        pa_stream_set_state_callback(m_stream, PulseClient::signal, m_loop);
        pa_buffer_attr attr{};
        attr.maxlength = uint32_t(-1);
        attr.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(10000, &spec));
        auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE);
        if (pa_stream_connect_record(m_stream, m_device.c_str(), &attr, flags) < 0 || !m_client.waitReady(m_stream))
            return fail(whatFailed());
        return {};
    }

    void stop() override
    {
        if (!m_loop)
            return;
        PulseLock lock(m_loop);
        if (m_stream) {
            pa_stream_set_read_callback(m_stream, nullptr, nullptr);
            pa_stream_set_latency_update_callback(m_stream, nullptr, nullptr);
            pa_stream_disconnect(m_stream);
            pa_stream_unref(m_stream);
            m_stream = nullptr;
        }
        m_onBlock = nullptr;
    }

private:
    std::string whatFailed() const
    {
        return std::string("The sound device \"") + m_device + "\" could not be opened, so "
            + (m_kind == Kind::microphone ? "the microphone" : "the computer's sound")
            + " is not recorded. The recording rolls without it.";
    }

    // Microphones are the sources that monitor no output; the computer's sound is heard
    // from an output (sink). Runs with the main loop locked.
    Status listDevices(std::vector<SoundDevice>& list)
    {
        struct Ask {
            pa_threaded_mainloop* loop;
            std::vector<SoundDevice>* list;
        } ask{m_loop, &list};
        if (m_kind == Kind::microphone)
            m_client.wait(pa_context_get_source_info_list(m_context,
                [](pa_context*, const pa_source_info* info, int eol, void* data) {
                    auto* a = static_cast<Ask*>(data);
                    if (info && eol == 0 && info->monitor_of_sink == PA_INVALID_INDEX)
                        a->list->push_back({info->name, info->description ? info->description : info->name});
                    if (eol)
                        pa_threaded_mainloop_signal(a->loop, 0);
                }, &ask));
        else
            m_client.wait(pa_context_get_sink_info_list(m_context,
                [](pa_context*, const pa_sink_info* info, int eol, void* data) {
                    auto* a = static_cast<Ask*>(data);
                    if (info && eol == 0)
                        a->list->push_back({info->name, info->description ? info->description : info->name});
                    if (eol)
                        pa_threaded_mainloop_signal(a->loop, 0);
                }, &ask));
        return {};
    }

    Status resolve(const std::optional<std::string>& device)
    {
        struct Ask {
            pa_threaded_mainloop* loop;
            std::string defaultSink, defaultSource;
            int channels = 0;
            std::string name;
            bool monitor = false;
        } ask{m_loop, {}, {}, 0, {}, false};
        m_client.wait(pa_context_get_server_info(m_context, [](pa_context*, const pa_server_info* info, void* data) {
            auto* a = static_cast<Ask*>(data);
            if (info) {
                a->defaultSink = info->default_sink_name ? info->default_sink_name : "";
                a->defaultSource = info->default_source_name ? info->default_source_name : "";
            }
            pa_threaded_mainloop_signal(a->loop, 0);
        }, &ask));
        if (m_kind == Kind::systemSound) {
            std::string sink = device.value_or(ask.defaultSink);
            if (sink.empty())
                return fail("There is no sound output to listen to, so the computer's sound is not recorded. "
                            "The recording rolls without it.");
            m_device = sink + ".monitor";
            m_channels = 2;
        } else {
            m_device = device.value_or(ask.defaultSource);
            m_channels = 1;
        }
        m_client.wait(pa_context_get_source_info_by_name(m_context, m_device.c_str(),
            [](pa_context*, const pa_source_info* info, int eol, void* data) {
                auto* a = static_cast<Ask*>(data);
                if (info && eol == 0) {
                    a->channels = info->sample_spec.channels;
                    a->name = info->name;
                    a->monitor = info->monitor_of_sink != PA_INVALID_INDEX;
                }
                pa_threaded_mainloop_signal(a->loop, 0);
            }, &ask));
        if (ask.name.empty())
            return fail(std::string("There is no sound device called \"") + m_device + "\", so "
                + (m_kind == Kind::microphone ? "the microphone" : "the computer's sound")
                + " is not recorded. The recording rolls without it.");
        if (m_kind == Kind::microphone)
            m_channels = std::clamp(ask.channels, 1, 8);
        m_monitor = ask.monitor;
        return {};
    }

    // The instant at which the sample at the read position was heard, from the latest
    // timing information the server sent while the stream flowed: the last sample it had
    // written into the stream was captured the source's latency before that moment, and
    // what a monitor records (rendered by its sink ahead of playing) sounds the sink's
    // latency after it was written. Absent until
    // such information arrives.
    std::optional<double> readPositionInstant() const
    {
        const pa_timing_info* t = pa_stream_get_timing_info(m_stream);
        if (!t || t->write_index <= 0 || t->write_index_corrupt || t->read_index_corrupt)
            return std::nullopt;
        const double bytesPerSecond = double(rate) * m_channels * sizeof(float);
        double taken = systemUptime() - double(pa_timeval_age(&t->timestamp)) / 1e6;
        double instant = taken - double(t->source_usec) / 1e6 - double(t->write_index - t->read_index) / bytesPerSecond;
        if (m_monitor)
            instant += double(t->sink_usec) / 1e6;
        return instant;
    }

    // Asks the server for fresh timing information; read() runs again when it comes.
    void askForTiming()
    {
        if (m_timingAsked)
            return;
        m_timingAsked = true;
        if (pa_operation* op = pa_stream_update_timing_info(m_stream, [](pa_stream*, int, void* self) {
                auto* source = static_cast<PulseSoundSource*>(self);
                source->m_timingAsked = false;
                source->read();
            }, this))
            pa_operation_unref(op);
    }

    // The uptime of the block starting at stream frame `m_position`: the sample count
    // carries time from the anchor, which follows the measured instants slowly.
    double stamp(double measured, int64_t frames, bool& joins)
    {
        double predicted = m_anchor + double(m_position - m_anchorFrame) / rate;
        double error = measured - predicted;
        m_error += errorSmoothing * (error - m_error);
        joins = m_anchored && std::fabs(m_error) <= reanchorBeyond;
        if (!joins) {
            m_anchor = measured;
            m_anchorFrame = m_position;
            m_error = 0;
            m_anchored = true;
            return measured;
        }
        if (std::fabs(m_error) > driftDeadband) {
            double limit = maxSlew * double(frames) / rate;
            double nudge = std::clamp(m_error, -limit, limit);
            m_anchor += nudge;
            m_error -= nudge;
            predicted += nudge;
        }
        return predicted;
    }

    // On the main loop's thread, also when fresh timing information arrives.
    void read()
    {
        if (!m_stream)
            return;
        const void* data = nullptr;
        size_t bytes = 0;
        while (pa_stream_readable_size(m_stream) > 0) {
            // The first samples wait in the stream until timing taken while they flowed
            // tells their capture instant.
            std::optional<double> measured = readPositionInstant();
            if (!measured && !m_anchored) {
                const double bytesPerSecond = double(rate) * m_channels * sizeof(float);
                double waiting = double(pa_stream_readable_size(m_stream)) / bytesPerSecond;
                if (waiting < 0.5) {
                    askForTiming();
                    return;
                }
                measured = systemUptime() - waiting; // no timing from this server: the samples' arrival
            }
            if (pa_stream_peek(m_stream, &data, &bytes) < 0 || bytes == 0)
                return;
            SoundBlock block;
            block.channels = m_channels;
            block.sampleRate = rate;
            size_t count = bytes / sizeof(float);
            count -= count % size_t(m_channels);
            if (data) {
                const float* samples = static_cast<const float*>(data);
                block.samples.assign(samples, samples + count);
            } else {
                block.samples.assign(count, 0.0f); // a hole in the stream
            }
            pa_stream_drop(m_stream);
            int64_t frames = block.frames();
            double predicted = m_anchor + double(m_position - m_anchorFrame) / rate;
            block.uptime = stamp(measured.value_or(predicted), frames, block.joinsPrevious);
            m_position += frames;
            if (m_onBlock && !block.samples.empty())
                m_onBlock(std::move(block));
        }
    }

    Kind m_kind;
    std::string m_device;
    int m_channels = 1;
    bool m_monitor = false; // the device is a sink's monitor
    PulseClient m_client;
    pa_threaded_mainloop* m_loop = nullptr; // the client's
    pa_context* m_context = nullptr;
    pa_stream* m_stream = nullptr;
    BlockHandler m_onBlock;
    // The block timeline; main loop's thread only.
    bool m_anchored = false;
    double m_anchor = 0;       // uptime of stream frame m_anchorFrame
    int64_t m_anchorFrame = 0;
    int64_t m_position = 0;    // frames read so far
    bool m_timingAsked = false;
    double m_error = 0;        // measured minus predicted, smoothed
};

} // namespace

Result<std::unique_ptr<SoundSource>> createPulseSoundSource(SoundSource::Kind kind, const std::optional<std::string>& device)
{
    auto source = std::make_unique<PulseSoundSource>(kind);
    PLIM_TRY(source->connect(device));
    return std::unique_ptr<SoundSource>(std::move(source));
}

Result<std::vector<SoundDevice>> listPulseSoundDevices(SoundSource::Kind kind)
{
    PulseSoundSource server(kind);
    std::vector<SoundDevice> devices;
    PLIM_TRY(server.connect(std::nullopt, &devices));
    return devices;
}

} // namespace plim
