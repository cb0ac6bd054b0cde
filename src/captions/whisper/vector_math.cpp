#include "captions/whisper/vector_math.h"

#include <cmath>
#include <cstring>

namespace plim::whisper {

namespace {

typedef float F4 __attribute__((vector_size(16)));
typedef int I4 __attribute__((vector_size(16)));

F4 splat(float v)
{
    return F4{v, v, v, v};
}

F4 load(const float* p)
{
    F4 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

void store(float* p, F4 v)
{
    std::memcpy(p, &v, sizeof v);
}

F4 select(I4 mask, F4 a, F4 b)
{
    return (F4)((mask & (I4)a) | (~mask & (I4)b));
}

// exp(x): x = n ln2 + r with |r| <= ln2 / 2, e^r by its Taylor series to r^6, 2^n through
// the exponent bits. Inputs below -87 give 0.
F4 exp4(F4 x)
{
    x = select(x < splat(88.f), x, splat(88.f));
    I4 tiny = x < splat(-87.f);
    x = select(tiny, splat(-87.f), x);
    F4 t = x * splat(1.44269504f) + splat(128.5f);
    I4 n = __builtin_convertvector(t, I4) - 128; // floor(x log2 e + 0.5)
    F4 nf = __builtin_convertvector(n, F4);
    F4 r = x - nf * splat(0.693359375f) - nf * splat(-2.12194440e-4f);
    F4 p = splat(1.f / 720);
    p = p * r + splat(1.f / 120);
    p = p * r + splat(1.f / 24);
    p = p * r + splat(1.f / 6);
    p = p * r + splat(0.5f);
    p = p * r + splat(1.f);
    p = p * r + splat(1.f);
    F4 scale = (F4)((n + 127) << 23);
    return select(tiny, splat(0.f), p * scale);
}

// erf(x) for x >= 0 (Abramowitz and Stegun 7.1.26), mirrored for negative x.
F4 erf4(F4 x)
{
    I4 negative = x < splat(0.f);
    F4 a = select(negative, -x, x);
    F4 t = splat(1.f) / (splat(1.f) + splat(0.3275911f) * a);
    F4 p = splat(1.061405429f);
    p = p * t + splat(-1.453152027f);
    p = p * t + splat(1.421413741f);
    p = p * t + splat(-0.284496736f);
    p = p * t + splat(0.254829592f);
    F4 y = splat(1.f) - p * t * exp4(-a * a);
    return select(negative, -y, y);
}

} // namespace

float expShifted(float* x, size_t n, float shift)
{
    F4 sum = splat(0.f);
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        F4 v = exp4(load(x + i) - splat(shift));
        store(x + i, v);
        sum += v;
    }
    float total = sum[0] + sum[1] + sum[2] + sum[3];
    for (; i < n; ++i)
        total += x[i] = std::exp(x[i] - shift);
    return total;
}

void gelu(float* x, size_t n)
{
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        F4 v = load(x + i);
        store(x + i, splat(0.5f) * v * (splat(1.f) + erf4(v * splat(0.70710678f))));
    }
    for (; i < n; ++i)
        x[i] = 0.5f * x[i] * (1.f + std::erf(x[i] * 0.70710678f));
}

} // namespace plim::whisper
