#pragma once
// Recorded sound: the microphone or the computer's sound, as blocks of interleaved float
// samples with the uptime instant (CLOCK_MONOTONIC) at which their first sample was
// heard. The PulseAudio backend (sound_source_pulse.cpp) also talks to PipeWire's Pulse
// server.
//
// Contract:
// - create() connects and resolves the device; it fails with a sentence when the sound
//   server or the device cannot be reached (the caller logs it and rolls without sound).
// - start() delivers blocks on the source's own thread (about every 10 ms). A block's
//   `uptime` is corrected for the server's latency and follows the sample count, so
//   consecutive blocks join up; it is re-anchored when the two part by more than 5 ms.
//   The handler must return quickly.
// - stop() may be called from any thread but the source's own; when it returns no
//   handler runs. Losing the server mid-recording ends delivery quietly; the track then
//   holds silence from there on.

#include "base/error.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plim {

struct SoundBlock {
    std::vector<float> samples; // interleaved, `channels` per frame
    int channels = 1;
    int sampleRate = 48000;
    double uptime = 0; // when the first frame was heard
    int64_t frames() const { return channels > 0 ? int64_t(samples.size()) / channels : 0; }
};

class SoundSource {
public:
    enum class Kind { microphone, systemSound };
    using BlockHandler = std::function<void(SoundBlock&&)>;

    virtual ~SoundSource() = default;

    virtual Kind kind() const = 0;
    // The device's name as the sound server knows it.
    virtual std::string deviceName() const = 0;
    virtual int channels() const = 0;
    virtual int sampleRate() const = 0;

    virtual Status start(BlockHandler onBlock) = 0;
    virtual void stop() = 0;
};

// The microphone from the default source (or `device`), or the computer's sound from the
// default sink's monitor (or the monitor of sink `device`). Microphones keep up to eight
// of their own channels (ArrayMic folds three or more); the computer's sound is stereo.
Result<std::unique_ptr<SoundSource>> createPulseSoundSource(SoundSource::Kind kind,
    const std::optional<std::string>& device = std::nullopt);

} // namespace plim
