#pragma once
// Whisper's front end: 25-ms Hann-windowed frames every 10 ms of 16-kHz sound, their power
// spectra summed through a Slaney-style mel filterbank, then log10, held within 8 of the
// loudest value and scaled to (x + 4) / 4.

#include "captions/whisper/model.h"

#include <span>
#include <vector>

namespace plim::whisper {

inline constexpr int sampleRate = 16000;
inline constexpr int fftSize = 400;
inline constexpr int hopLength = 160;
inline constexpr int windowSamples = 30 * sampleRate;

// `mels` rows of 201 weights, one per frequency bin of a 400-point transform.
std::vector<float> melFilters(int mels);

// The frames of `samples` followed by 30 s of silence (so the last window is whole):
// `mels` rows of (samples.size() + windowSamples) / hopLength columns.
Matrix logMel(std::span<const float> samples, int mels);

} // namespace plim::whisper
