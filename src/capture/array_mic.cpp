#include "capture/array_mic.h"

#include <algorithm>
#include <cmath>

namespace plim {

ArrayMic::Buffer ArrayMic::downmixedToMono(const Buffer& buffer)
{
    Buffer mono;
    mono.channels = 1;
    mono.sampleRate = buffer.sampleRate;
    if (buffer.channels <= 0)
        return mono;
    const size_t frames = buffer.samples.size() / size_t(buffer.channels);
    mono.samples.resize(frames);
    const float scale = 1.0f / float(buffer.channels);
    for (size_t f = 0; f < frames; ++f) {
        float sum = 0;
        for (int c = 0; c < buffer.channels; ++c)
            sum += buffer.samples[f * size_t(buffer.channels) + size_t(c)];
        mono.samples[f] = sum * scale;
    }
    return mono;
}

float ArrayMic::peak(const std::vector<float>& samples)
{
    float p = 0;
    for (float s : samples)
        p = std::max(p, std::fabs(s));
    return p;
}

void ArrayMic::applyGain(float gain, std::vector<float>& samples)
{
    if (gain == 1.0f)
        return;
    for (float& s : samples)
        s = std::clamp(gain * s, -1.0f, 1.0f);
}

ArrayMic::Buffer ArrayMic::Treatment::treated(Buffer buffer)
{
    m_lastGain = 1;
    if (buffer.channels < 3)
        return buffer;
    Buffer mono = downmixedToMono(buffer);
    if (mono.sampleRate > 0)
        m_clock += double(mono.samples.size()) / mono.sampleRate;
    m_window.emplace_back(peak(mono.samples), m_clock);
    std::erase_if(m_window, [&](const auto& entry) { return entry.second < m_clock - windowSeconds; });
    float windowPeak = 0;
    for (const auto& [p, ends] : m_window)
        windowPeak = std::max(windowPeak, p);
    float gain = 1;
    if (windowPeak > 0 && std::isfinite(windowPeak))
        gain = std::min(targetPeak / windowPeak, maxGain);
    if (!(gain >= 1.0f))
        gain = 1;
    applyGain(gain, mono.samples);
    m_lastGain = gain;
    return mono;
}

} // namespace plim
