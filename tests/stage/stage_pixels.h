#pragma once
// Pixels of composed frames (BGRA in memory): a pixel's colour, how far apart two colours
// are, and how many pixels of a box differ between two frames.

#include "base/image.h"

#include <cstdint>
#include <cstdlib>

namespace plim::stagetest {

struct Rgba {
    int b = 0, g = 0, r = 0, a = 0;
    int luma() const { return (r * 3 + g * 6 + b) / 10; }
};

inline Rgba at(const Image& image, int x, int y)
{
    const uint8_t* p = image.row(y) + x * 4;
    return {p[0], p[1], p[2], p[3]};
}

inline int distance(Rgba p, Rgba q) { return std::abs(p.r - q.r) + std::abs(p.g - q.g) + std::abs(p.b - q.b); }

// Pixels inside a box that differ clearly between two frames.
inline int changed(const Image& a, const Image& b, int x0, int y0, int x1, int y1, int threshold = 30)
{
    int n = 0;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            n += distance(at(a, x, y), at(b, x, y)) > threshold;
    return n;
}

} // namespace plim::stagetest
