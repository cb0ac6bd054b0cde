#pragma once
// Microphones that present a raw array of three or more capsules are far quieter than the
// processed voice other programs record. The treatment folds such input to one channel
// and lifts it so the loudest sample of the last ten seconds reaches half of full scale,
// by at most 126 times. Ordinary (one- or two-channel) input passes through untouched.

#include <utility>
#include <vector>

namespace plim {

struct ArrayMic {
    static constexpr double windowSeconds = 10.0;
    static constexpr float targetPeak = 0.5f;
    static constexpr float maxGain = 126.0f;

    // Interleaved samples with their channel count.
    struct Buffer {
        std::vector<float> samples;
        int channels = 1;
        int sampleRate = 48000;
        bool operator==(const Buffer&) const = default;
    };

    // The average of the channels at each frame.
    static Buffer downmixedToMono(const Buffer& buffer);
    static float peak(const std::vector<float>& samples);
    // Multiplies by the gain, clamped to ±1; a gain of 1 leaves the samples as they are.
    static void applyGain(float gain, std::vector<float>& samples);

    class Treatment {
    public:
        // Not thread-safe: one capture's sound thread owns it.
        Buffer treated(Buffer buffer);
        // The gain the last buffer got (1 when it was passed through).
        float lastGain() const { return m_lastGain; }
        double clock() const { return m_clock; }

    private:
        std::vector<std::pair<float, double>> m_window; // (peak, ends)
        double m_clock = 0;
        float m_lastGain = 1;
    };
};

} // namespace plim
