#pragma once
// exp and erf over whole arrays with GCC's vector extensions: eight lanes at a time where
// the processor has AVX2, four (plain SSE2) on any other x86-64. Relative error of exp about
// 2e-7; absolute error of erf about 2e-7.
// The encoder spends most of its non-product time here: millions of softmax and GELU values
// a window.

#include <cstddef>

namespace plim::whisper {

// x[i] = exp(x[i] - shift); returns the sum of the new values.
float expShifted(float* x, size_t n, float shift);

// x[i] = x[i] / 2 * (1 + erf(x[i] / sqrt(2))), the exact GELU.
void gelu(float* x, size_t n);

// The largest of x[0..n), NaN left out; -infinity when there is none.
float largest(const float* x, size_t n);

} // namespace plim::whisper
