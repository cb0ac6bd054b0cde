#pragma once
// What the sync tests share: a tone player on the test's sound server that says when each
// tone will be heard, the movie's sound and the first frames of each colour read back, and
// the check that each tone starts with the picture it goes with.

#include "base/clock.h"
#include "capture/capture_session.h"
#include "media/movie_reader.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <pulse/pulseaudio.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

namespace plim::sync {

inline constexpr double toneHz = 1000.0;
inline constexpr float toneLevel = 0.5f;

// A PulseAudio callback (its leading arguments `Args`) that wakes the thread waiting on the
// main loop it was given.
template<typename... Args> void wake(Args..., void* loop)
{
    pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
}

// A playback stream kept running with silence, or with a steady tone when `steady`;
// beep() writes a tone and says, on the uptime clock, when its first sample will be heard.
class TonePlayer {
public:
    explicit TonePlayer(bool steady = false) : m_steady(steady)
    {
        m_loop = pa_threaded_mainloop_new();
        m_context = pa_context_new(pa_threaded_mainloop_get_api(m_loop), "sync test");
        pa_context_set_state_callback(m_context, wake<pa_context*>, m_loop);
        pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
        pa_threaded_mainloop_lock(m_loop);
        pa_threaded_mainloop_start(m_loop);
        while (pa_context_get_state(m_context) != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(pa_context_get_state(m_context)))
            pa_threaded_mainloop_wait(m_loop);
        pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, 48000, 1};
        m_stream = pa_stream_new(m_context, "tone", &spec, nullptr);
        pa_stream_set_state_callback(m_stream, wake<pa_stream*>, m_loop);
        // A steady tone keeps a second queued, so a busy machine cannot starve it.
        pa_buffer_attr attr{.maxlength = uint32_t(-1),
            .tlength = uint32_t(pa_usec_to_bytes(steady ? 1000000 : 30000, &spec)),
            .prebuf = uint32_t(-1),
            .minreq = uint32_t(-1)};
        pa_stream_connect_playback(m_stream, "plimsink", &attr,
            pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_AUTO_TIMING_UPDATE),
            nullptr, nullptr);
        while (pa_stream_get_state(m_stream) != PA_STREAM_READY && PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream)))
            pa_threaded_mainloop_wait(m_loop);
        m_ready = pa_stream_get_state(m_stream) == PA_STREAM_READY;
        auto fill = [](pa_stream* s, size_t bytes, void* self) {
            auto* player = static_cast<TonePlayer*>(self);
            std::vector<float> samples(bytes / 4, 0.0f);
            if (player->m_steady)
                for (float& sample : samples)
                    sample = toneAt(player->m_played++);
            pa_stream_write(s, samples.data(), samples.size() * 4, nullptr, 0, PA_SEEK_RELATIVE);
        };
        pa_stream_set_write_callback(m_stream, fill, this);
        pa_stream_set_underflow_callback(m_stream, [](pa_stream*, void* self) {
            ++static_cast<TonePlayer*>(self)->m_underflows;
        }, this);
        if (m_ready) // the server's first request came before the callback was set
            fill(m_stream, pa_stream_writable_size(m_stream), this);
        pa_threaded_mainloop_unlock(m_loop);
    }
    ~TonePlayer()
    {
        pa_threaded_mainloop_lock(m_loop);
        if (m_stream) {
            pa_stream_disconnect(m_stream);
            pa_stream_unref(m_stream);
        }
        pa_threaded_mainloop_unlock(m_loop);
        pa_threaded_mainloop_stop(m_loop);
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
        pa_threaded_mainloop_free(m_loop);
    }
    bool isReady() const { return m_ready; }
    // Times the sink ran out of the tone (so the sink itself fell silent).
    int underflows() const { return m_underflows.load(); }

    static float toneAt(int64_t i) { return toneLevel * float(std::sin(2 * M_PI * toneHz * double(i % 48000) / 48000)); }

    double beep(double seconds)
    {
        std::vector<float> tone(size_t(seconds * 48000));
        for (size_t i = 0; i < tone.size(); ++i)
            tone[i] = toneAt(int64_t(i));
        pa_threaded_mainloop_lock(m_loop);
        // When the sink will take the first byte written now: what is queued ahead of it
        // plus the sink's own latency, from fresh timing information.
        pa_operation* op = pa_stream_update_timing_info(m_stream, wake<pa_stream*, int>, m_loop);
        while (op && pa_operation_get_state(op) == PA_OPERATION_RUNNING)
            pa_threaded_mainloop_wait(m_loop);
        if (op)
            pa_operation_unref(op);
        double heard = systemUptime();
        if (const pa_timing_info* t = pa_stream_get_timing_info(m_stream))
            heard += double(t->write_index - t->read_index) / (48000.0 * 4) + double(t->sink_usec) / 1e6;
        pa_stream_write(m_stream, tone.data(), tone.size() * 4, nullptr, 0, PA_SEEK_RELATIVE);
        pa_threaded_mainloop_unlock(m_loop);
        return heard;
    }

private:
    pa_threaded_mainloop* m_loop = nullptr;
    pa_context* m_context = nullptr;
    pa_stream* m_stream = nullptr;
    bool m_ready = false;
    bool m_steady = false;
    int64_t m_played = 0; // main loop's thread
    std::atomic<int> m_underflows{0};
};

inline void sleepUntil(double uptime)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(uptime - systemUptime())); // none once past
}

// A recording with `settings` into `movie` of the devices they open, once `adjust` (when
// set) has looked them over or replaced some; its failure is the recording's.
inline Result<std::unique_ptr<CaptureSession>> startRecording(const CaptureSettings& settings,
    const std::filesystem::path& movie, const std::function<Status(CaptureDevices&)>& adjust = {})
{
    auto devices = PLIM_TRY(openDevices(settings));
    if (adjust)
        PLIM_TRY(adjust(devices));
    return CaptureSession::start(settings, std::move(devices), {.movie = movie});
}

// A recording of the screen and the computer's sound (the test's sink) into `movie`.
inline Result<std::unique_ptr<CaptureSession>> recordScreenAndSound(const std::filesystem::path& movie)
{
    return startRecording({.keycaps = false, .systemSound = true}, movie, [](CaptureDevices& devices) {
        return devices.systemSound ? Status{} : fail("The computer's sound could not be opened.");
    });
}

// One sound track of the movie as mono samples, as a player sounds them from the
// movie's time 0 (the encoder's priming lies before it).
inline std::vector<float> soundTrack(const std::filesystem::path& movie, int track)
{
    auto decoded = testkit::runCommand({"ffmpeg", "-v", "error", "-copyts", "-i", movie.string(), "-map",
        "0:a:" + std::to_string(track), "-af", "atrim=start=0", "-ac", "1", "-f", "f32le", "-"});
    std::vector<float> samples(decoded.out.size() / 4);
    std::memcpy(samples.data(), decoded.out.data(), samples.size() * 4);
    return samples;
}

// The colours the sync tests' windows take, told apart by the middle pixel (BGRA) of a frame.
enum Colour { grey, red, blue, green, white, yellow, colours };
inline int colourOf(const uint8_t* p)
{
    int b = p[0], g = p[1], r = p[2];
    if (r > 200 && g > 200)
        return b > 200 ? white : b < 80 ? yellow : grey;
    if (r > 180 && g < 80 && b < 80)
        return red;
    if (b > 180 && r < 80 && g < 80)
        return blue;
    if (g > 180 && r < 80 && b < 80)
        return green;
    return grey;
}

// Movie seconds of the first frame of each colour (-1 where it never shows) and of the
// frame before it.
struct FirstFrames {
    double first[colours] = {-1, -1, -1, -1, -1, -1};
    double before[colours] = {-1, -1, -1, -1, -1, -1};
};
inline FirstFrames firstFrames(const std::filesystem::path& movie)
{
    FirstFrames found;
    auto reader = MovieReader::create(movie);
    if (!reader) {
        ADD_FAILURE() << reader.error().sentence;
        return found;
    }
    double previous = -1;
    while (true) {
        auto frame = (*reader)->next();
        if (!frame)
            ADD_FAILURE() << frame.error().sentence;
        if (!frame || !*frame)
            return found;
        const Image& image = (*frame)->image;
        int kind = colourOf(image.row(image.height / 2) + (image.width / 2) * 4);
        if (found.first[kind] < 0) {
            found.first[kind] = (*frame)->time;
            found.before[kind] = previous;
        }
        previous = (*frame)->time;
    }
}

// Each tone's onset in `samples` (sound after a tenth of a second of quiet) against the
// first frame showing the picture that went with it, `shown`, in movie seconds. The frame is
// taken up to a frame after the change (`frameMS`), so the sound may lead by that much more;
// a single tone may lead by `repaintMS` more where the picture waits on other programs'
// frames before it reaches the screen.
inline void expectTonesWithThePicture(const std::vector<float>& samples, const std::vector<double>& shown,
    double frameMS, double repaintMS = 0)
{
    std::vector<double> onsets;
    size_t quietSince = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        if (std::fabs(samples[i]) > 0.05f) {
            if (i - quietSince > 4800)
                onsets.push_back(double(i) / 48000);
            quietSince = i;
        }
    }
    ASSERT_EQ(onsets.size(), shown.size());
    std::vector<double> offsets;
    for (size_t n = 0; n < shown.size(); ++n) {
        double offsetMS = (onsets[n] - shown[n]) * 1000;
        std::printf("tone %zu: sound starts %.1f ms from the first frame showing its colour\n", n + 1, offsetMS);
        offsets.push_back(offsetMS);
        // A single tone also carries this test's own scheduling on a busy machine.
        EXPECT_GT(offsetMS, -60.0 - repaintMS);
        EXPECT_LT(offsetMS, 50.0);
    }
    std::sort(offsets.begin(), offsets.end());
    double median = offsets.size() % 2 ? offsets[offsets.size() / 2]
                                       : (offsets[offsets.size() / 2 - 1] + offsets[offsets.size() / 2]) / 2;
    EXPECT_LE(median, 20.0);
    EXPECT_GE(median, -(20.0 + frameMS));
}

} // namespace plim::sync
