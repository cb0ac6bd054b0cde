#include "media/colour_convert.h"

#include <cmath>

namespace plim {

namespace {

// Coefficients in units of 2^-14, for full-range R'G'B' in, limited-range Y'CbCr out.
struct Coefficients {
    int yr, yg, yb, ur, ug, ub, vr, vg, vb;
};

constexpr int bits = 14;

Coefficients coefficientsFor(YuvMatrix matrix)
{
    const double kr = matrix == YuvMatrix::bt709 ? 0.2126 : 0.299;
    const double kb = matrix == YuvMatrix::bt709 ? 0.0722 : 0.114;
    const double kg = 1 - kr - kb;
    const double luma = 219.0 / 255.0, chroma = 224.0 / 255.0;
    auto q = [](double v) { return static_cast<int>(std::lround(v * (1 << bits))); };
    return {q(luma * kr), q(luma * kg), q(luma * kb), q(-chroma * 0.5 * kr / (1 - kb)),
        q(-chroma * 0.5 * kg / (1 - kb)), q(chroma * 0.5), q(chroma * 0.5), q(-chroma * 0.5 * kg / (1 - kr)),
        q(-chroma * 0.5 * kb / (1 - kr))};
}

// Two rows of pixels into two rows of luma and one of each chroma. Written as plain loops
// over bytes so that the compiler vectorises them.
__attribute__((target_clones("avx2", "default"))) void rowPair(const uint8_t* __restrict a,
    const uint8_t* __restrict b, int width, uint8_t* __restrict y0, uint8_t* __restrict y1, uint8_t* __restrict u,
    uint8_t* __restrict v, Coefficients c)
{
    constexpr int lumaOffset = (16 << bits) + (1 << (bits - 1));
    for (int x = 0; x < width; ++x) {
        y0[x] = static_cast<uint8_t>((c.yr * a[4 * x + 2] + c.yg * a[4 * x + 1] + c.yb * a[4 * x] + lumaOffset) >> bits);
        y1[x] = static_cast<uint8_t>((c.yr * b[4 * x + 2] + c.yg * b[4 * x + 1] + c.yb * b[4 * x] + lumaOffset) >> bits);
    }
    // Sums of four pixels: two more bits to shift away.
    constexpr int chromaOffset = (128 << (bits + 2)) + (1 << (bits + 1));
    for (int x = 0; x < width / 2; ++x) {
        const int r = a[8 * x + 2] + a[8 * x + 6] + b[8 * x + 2] + b[8 * x + 6];
        const int g = a[8 * x + 1] + a[8 * x + 5] + b[8 * x + 1] + b[8 * x + 5];
        const int bl = a[8 * x] + a[8 * x + 4] + b[8 * x] + b[8 * x + 4];
        u[x] = static_cast<uint8_t>((c.ur * r + c.ug * g + c.ub * bl + chromaOffset) >> (bits + 2));
        v[x] = static_cast<uint8_t>((c.vr * r + c.vg * g + c.vb * bl + chromaOffset) >> (bits + 2));
    }
}

} // namespace

void bgraToYuv420(const uint8_t* bgra, std::ptrdiff_t stride, int width, int height, uint8_t* const planes[3],
    const int linesizes[3], YuvMatrix matrix)
{
    const Coefficients c = coefficientsFor(matrix);
    for (int y = 0; y + 1 < height; y += 2)
        rowPair(bgra + y * stride, bgra + (y + 1) * stride, width, planes[0] + std::ptrdiff_t(y) * linesizes[0],
            planes[0] + std::ptrdiff_t(y + 1) * linesizes[0], planes[1] + std::ptrdiff_t(y / 2) * linesizes[1],
            planes[2] + std::ptrdiff_t(y / 2) * linesizes[2], c);
}

} // namespace plim
