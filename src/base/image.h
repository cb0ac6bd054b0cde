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
    static Image allocate(int width, int height) { return make(width, height, true); }

    // The same, not zeroed: for a writer that sets every pixel before anything reads one
    // (a decoded frame, a rendered canvas). Saves a pass over memory the size of a frame.
    static Image uninitialized(int width, int height) { return make(width, height, false); }

    Image clone() const
    {
        Image copy = uninitialized(width, height);
        for (int y = 0; y < height; ++y)
            std::memcpy(copy.row(y), row(y), static_cast<size_t>(width) * 4);
        return copy;
    }

private:
    static Image make(int width, int height, bool zeroed)
    {
        Image image;
        if (width <= 0 || height <= 0)
            return image;
        image.width = width;
        image.height = height;
        image.stride = (static_cast<std::ptrdiff_t>(width) * 4 + 63) / 64 * 64;
        const size_t bytes = static_cast<size_t>(image.stride) * static_cast<size_t>(height);
        uint8_t* p = zeroed ? new (std::align_val_t(64)) uint8_t[bytes]() : new (std::align_val_t(64)) uint8_t[bytes];
        image.pixels = std::shared_ptr<uint8_t[]>(p, [](uint8_t* q) { ::operator delete[](q, std::align_val_t(64)); });
        return image;
    }
};

// A picture with the instant it belongs to, in seconds on its stream's clock.
struct VideoFrame {
    Image image;
    double time = 0;
};

} // namespace plim
