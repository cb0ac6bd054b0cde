#include "captions/whisper/log_mel.h"

#include <algorithm>
#include <cblas.h>
#include <cmath>

namespace plim::whisper {

namespace {

constexpr int bins = fftSize / 2 + 1;

// The Slaney mel scale: linear below 1 kHz, logarithmic above.
double hzToMel(double hz)
{
    constexpr double linearStep = 200.0 / 3, knee = 1000.0, kneeMel = knee / linearStep;
    static const double logStep = std::log(6.4) / 27.0;
    return hz < knee ? hz / linearStep : kneeMel + std::log(hz / knee) / logStep;
}

double melToHz(double mel)
{
    constexpr double linearStep = 200.0 / 3, knee = 1000.0, kneeMel = knee / linearStep;
    static const double logStep = std::log(6.4) / 27.0;
    return mel < kneeMel ? mel * linearStep : knee * std::exp(logStep * (mel - kneeMel));
}

} // namespace

std::vector<float> melFilters(int mels)
{
    // mels + 2 edges evenly spaced in mel from 0 Hz to the Nyquist frequency; triangle i
    // rises from edge i to edge i + 1 and falls to edge i + 2, scaled to equal area.
    std::vector<double> edges(size_t(mels) + 2);
    double top = hzToMel(sampleRate / 2.0);
    for (size_t i = 0; i < edges.size(); ++i)
        edges[i] = melToHz(top * double(i) / double(mels + 1));
    std::vector<float> filters(size_t(mels) * bins);
    for (int m = 0; m < mels; ++m) {
        double lo = edges[size_t(m)], mid = edges[size_t(m) + 1], hi = edges[size_t(m) + 2];
        double norm = 2.0 / (hi - lo);
        for (int k = 0; k < bins; ++k) {
            double hz = double(k) * sampleRate / fftSize;
            double w = std::max(0.0, std::min((hz - lo) / (mid - lo), (hi - hz) / (hi - mid)));
            filters[size_t(m) * bins + size_t(k)] = float(w * norm);
        }
    }
    return filters;
}

Matrix logMel(std::span<const float> samples, int mels)
{
    const long n = long(samples.size()), padded = n + windowSamples;
    const int frames = int(padded / hopLength);
    // The sound with its silence, read with mirror padding of half a frame at both ends.
    auto at = [&](long i) -> float {
        if (i < 0)
            i = -i;
        if (i >= padded)
            i = 2 * (padded - 1) - i;
        float v = i < n && i >= 0 ? samples[size_t(i)] : 0.f;
        return std::isfinite(v) ? v : 0.f;
    };
    // The windowed transform as a product: each frame times [cos | -sin] columns.
    std::vector<float> basis(size_t(fftSize) * 2 * bins);
    for (int t = 0; t < fftSize; ++t) {
        double w = 0.5 - 0.5 * std::cos(2 * M_PI * t / fftSize);
        for (int k = 0; k < bins; ++k) {
            double a = 2 * M_PI * double((long(k) * t) % fftSize) / fftSize;
            basis[size_t(t) * 2 * bins + size_t(k)] = float(w * std::cos(a));
            basis[size_t(t) * 2 * bins + bins + size_t(k)] = float(-w * std::sin(a));
        }
    }
    std::vector<float> filters = melFilters(mels);
    Matrix out{mels, frames, std::vector<float>(size_t(mels) * size_t(frames))};
    constexpr int chunk = 1000;
    std::vector<float> block(size_t(chunk) * fftSize), spectrum(size_t(chunk) * 2 * bins),
        power(size_t(chunk) * bins), mel(size_t(chunk) * size_t(mels));
    float loudest = -100;
    for (int first = 0; first < frames; first += chunk) {
        int count = std::min(chunk, frames - first);
        for (int f = 0; f < count; ++f) {
            long start = long(first + f) * hopLength - fftSize / 2;
            for (int t = 0; t < fftSize; ++t)
                block[size_t(f) * fftSize + size_t(t)] = at(start + t);
        }
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, count, 2 * bins, fftSize, 1.f, block.data(), fftSize,
            basis.data(), 2 * bins, 0.f, spectrum.data(), 2 * bins);
        for (int f = 0; f < count; ++f)
            for (int k = 0; k < bins; ++k) {
                float re = spectrum[size_t(f) * 2 * bins + size_t(k)], im = spectrum[size_t(f) * 2 * bins + bins + size_t(k)];
                power[size_t(f) * bins + size_t(k)] = re * re + im * im;
            }
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, count, mels, bins, 1.f, power.data(), bins,
            filters.data(), bins, 0.f, mel.data(), mels);
        for (int f = 0; f < count; ++f)
            for (int m = 0; m < mels; ++m) {
                float v = std::log10(std::max(mel[size_t(f) * size_t(mels) + size_t(m)], 1e-10f));
                out.row(m)[first + f] = v;
                loudest = std::max(loudest, v);
            }
    }
    for (float& v : out.data)
        v = (std::max(v, loudest - 8.f) + 4.f) / 4.f;
    return out;
}

} // namespace plim::whisper
