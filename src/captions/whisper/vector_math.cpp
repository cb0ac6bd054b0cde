#include "captions/whisper/vector_math.h"

#include <cmath>
#include <cstring>

// Eight-lane vectors in functions built for AVX2 pass through no call boundary (all is
// inlined), so the ABI warning GCC gives about them does not apply. GCC gives it at the end
// of the unit, so the setting stays on to there.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace plim::whisper {

namespace {

// The kernels are written once for vectors of `Lanes` floats; the entry points below run
// them eight lanes wide where the processor has AVX2 and FMA, four (SSE2) elsewhere.
template<int Lanes>
struct Types;
template<>
struct Types<4> {
    typedef float F __attribute__((vector_size(16)));
    typedef int I __attribute__((vector_size(16)));
};
template<>
struct Types<8> {
    typedef float F __attribute__((vector_size(32)));
    typedef int I __attribute__((vector_size(32)));
};

template<int Lanes>
struct Vec {
    using F = typename Types<Lanes>::F;
    using I = typename Types<Lanes>::I;

    [[gnu::always_inline]] static F splat(float v)
    {
        F r;
        for (int i = 0; i < Lanes; ++i)
            r[i] = v;
        return r;
    }
    [[gnu::always_inline]] static F load(const float* p)
    {
        F v;
        std::memcpy(&v, p, sizeof v);
        return v;
    }
    [[gnu::always_inline]] static void store(float* p, const F& v) { std::memcpy(p, &v, sizeof v); }
    [[gnu::always_inline]] static F select(const I& mask, const F& a, const F& b) { return (F)((mask & (I)a) | (~mask & (I)b)); }
    [[gnu::always_inline]] static float sum(const F& v)
    {
        float s = 0;
        for (int i = 0; i < Lanes; ++i)
            s += v[i];
        return s;
    }

    // exp(x): x = n ln2 + r with |r| <= ln2 / 2, e^r by its Taylor series to r^6, 2^n through
    // the exponent bits. Inputs below -87 give 0.
    [[gnu::always_inline]] static F exp(const F& in)
    {
        F x = select(in < splat(88.f), in, splat(88.f));
        I tiny = x < splat(-87.f);
        x = select(tiny, splat(-87.f), x);
        F t = x * splat(1.44269504f) + splat(128.5f);
        I n = __builtin_convertvector(t, I) - 128; // floor(x log2 e + 0.5)
        F nf = __builtin_convertvector(n, F);
        F r = x - nf * splat(0.693359375f) - nf * splat(-2.12194440e-4f);
        F p = splat(1.f / 720);
        p = p * r + splat(1.f / 120);
        p = p * r + splat(1.f / 24);
        p = p * r + splat(1.f / 6);
        p = p * r + splat(0.5f);
        p = p * r + splat(1.f);
        p = p * r + splat(1.f);
        F scale = (F)((n + 127) << 23);
        return select(tiny, splat(0.f), p * scale);
    }

    // erf(x) for x >= 0 (Abramowitz and Stegun 7.1.26), mirrored for negative x.
    [[gnu::always_inline]] static F erf(const F& x)
    {
        I negative = x < splat(0.f);
        F a = select(negative, -x, x);
        F t = splat(1.f) / (splat(1.f) + splat(0.3275911f) * a);
        F p = splat(1.061405429f);
        p = p * t + splat(-1.453152027f);
        p = p * t + splat(1.421413741f);
        p = p * t + splat(-0.284496736f);
        p = p * t + splat(0.254829592f);
        F y = splat(1.f) - p * t * exp(-a * a);
        return select(negative, -y, y);
    }

    [[gnu::always_inline]] static float expShifted(float* x, size_t n, float shift)
    {
        F total = splat(0.f);
        size_t i = 0;
        for (; i + Lanes <= n; i += Lanes) {
            F v = exp(load(x + i) - splat(shift));
            store(x + i, v);
            total += v;
        }
        float s = sum(total);
        for (; i < n; ++i)
            s += x[i] = std::exp(x[i] - shift);
        return s;
    }

    [[gnu::always_inline]] static void gelu(float* x, size_t n)
    {
        size_t i = 0;
        for (; i + Lanes <= n; i += Lanes) {
            F v = load(x + i);
            store(x + i, splat(0.5f) * v * (splat(1.f) + erf(v * splat(0.70710678f))));
        }
        for (; i < n; ++i)
            x[i] = 0.5f * x[i] * (1.f + std::erf(x[i] * 0.70710678f));
    }

    // Ignores NaN; -infinity for none.
    [[gnu::always_inline]] static float largest(const float* x, size_t n)
    {
        F top = splat(-INFINITY);
        size_t i = 0;
        for (; i + Lanes <= n; i += Lanes) {
            F v = load(x + i);
            top = select(v > top, v, top);
        }
        float m = -INFINITY;
        for (int l = 0; l < Lanes; ++l)
            m = top[l] > m ? top[l] : m;
        for (; i < n; ++i)
            m = x[i] > m ? x[i] : m;
        return m;
    }
};

[[gnu::target("avx2,fma")]] float expShiftedWide(float* x, size_t n, float shift)
{
    return Vec<8>::expShifted(x, n, shift);
}

[[gnu::target("avx2,fma")]] void geluWide(float* x, size_t n)
{
    Vec<8>::gelu(x, n);
}

[[gnu::target("avx2,fma")]] float largestWide(const float* x, size_t n)
{
    return Vec<8>::largest(x, n);
}

bool wide()
{
    static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    return has;
}

} // namespace

float expShifted(float* x, size_t n, float shift)
{
    return wide() ? expShiftedWide(x, n, shift) : Vec<4>::expShifted(x, n, shift);
}

void gelu(float* x, size_t n)
{
    wide() ? geluWide(x, n) : Vec<4>::gelu(x, n);
}

float largest(const float* x, size_t n)
{
    return wide() ? largestWide(x, n) : Vec<4>::largest(x, n);
}

} // namespace plim::whisper
