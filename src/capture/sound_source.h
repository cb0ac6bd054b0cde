#pragma once
// Recorded sound: the microphone or the computer's sound, as blocks of interleaved float
// samples with the uptime instant (CLOCK_MONOTONIC) at which their first sample was
// heard. The PulseAudio backend (sound_source_pulse.cpp) also talks to PipeWire's Pulse
// server.
//
// Contract:
// - create() connects and resolves the device; it fails with a sentence when the sound
//   server or the device cannot be reached (the caller logs it and rolls without sound).
// - start() returns once the stream records; blocks then come on the source's own thread
//   (about every 10 ms). The sample count carries the time: a block's `uptime` is the
//   previous block's plus its length, so consecutive blocks join up exactly, while the
//   stream's own timing (its position and latency at the server) pulls that timeline
//   slowly, at most 0.5 ms a second, toward the instants the server reports once they
//   part by more than 8 ms on average; only when
//   the two part by more than 40 ms (samples lost, a stall) is the timeline set afresh,
//   and that block says it does not join the one before. The first block is stamped by
//   the capture instant of its first sample. The handler must return quickly.
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
    bool joinsPrevious = false; // begins where the previous block ended, with no break
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

// A device as the sound server names it (what `device` above takes) and describes it.
struct SoundDevice {
    std::string name;
    std::string description;
    bool operator==(const SoundDevice&) const = default;
};

// The microphones (sources that are no output's monitor), or for the computer's sound the
// outputs, of the sound server. Blocks for one round trip; fails with the sentence of a
// server that does not answer.
Result<std::vector<SoundDevice>> listPulseSoundDevices(SoundSource::Kind kind);

} // namespace plim
