#pragma once
// A picture in memory: 8-bit BGRA with premultiplied alpha, rows top to bottom. This is
// cairo's CAIRO_FORMAT_ARGB32 on little-endian machines and FFmpeg's AV_PIX_FMT_BGRA, so
// decoded frames, composed frames and encoder input pass between them without copying.
// Copies of an Image share their pixels; `clone()` makes an independent one.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

namespace plim {

struct Image {
    int width = 0;
    int height = 0;
    std::ptrdiff_t stride = 0; // bytes from one row to the next, at least 4 × width
    std::shared_ptr<uint8_t[]> pixels;

    bool isEmpty() const { return width <= 0 || height <= 0 || !pixels; }
    uint8_t* row(int y) { return pixels.get() + y * stride; }
    const uint8_t* row(int y) const { return pixels.get() + y * stride; }

    // A zeroed (fully transparent) picture; rows are 64-byte aligned for SIMD kernels.
    static Image allocate(int width, int height)
    {
        Image image;
        if (width <= 0 || height <= 0)
            return image;
        image.width = width;
        image.height = height;
        image.stride = (static_cast<std::ptrdiff_t>(width) * 4 + 63) / 64 * 64;
        image.pixels = std::shared_ptr<uint8_t[]>(new (std::align_val_t(64)) uint8_t[image.stride * height](),
            [](uint8_t* p) { ::operator delete[](p, std::align_val_t(64)); });
        return image;
    }

    Image clone() const
    {
        Image copy = allocate(width, height);
        for (int y = 0; y < height; ++y)
            std::memcpy(copy.row(y), row(y), static_cast<size_t>(width) * 4);
        return copy;
    }
};

// A picture with the instant it belongs to, in seconds on its stream's clock.
struct VideoFrame {
    Image image;
    double time = 0;
};

} // namespace plim
