#pragma once
// GIFSink writes composed frames into an animated GIF that loops forever. Each frame's
// delay is the time to the next frame, rounded to hundredths of a second and at least
// 0.02 s; the last frame lasts one slot (1 / fps). Frames are quantised with
// libimagequant (a palette of their own, dithered) and written with giflib. Only the
// rectangle that changed since the last frame is written, and inside it the pixels that
// did not change are transparent, so a mostly still screen costs few bytes.
//
// Threads: one thread at a time (the render thread). The file is written at `path` (the
// partial name); finish() completes it, cancel() or destruction without finish() removes
// it. Frames must be the canvas size; others are scaled by nearest neighbour.

#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"

#include <filesystem>
#include <memory>
#include <vector>

namespace plim {

namespace fs = std::filesystem;

class GIFSink {
public:
    struct Options {
        double fps = 12;
        // How far a channel may drift (0..255) before a pixel counts as changed. Decoded
        // screen movies carry a little noise that is not worth sending again.
        int changeTolerance = 3;
        float dithering = 0.3f; // light: heavier dithering cost SSIM and bytes on screen content (share_bench --gif)
        int quantizeSpeed = 4; // libimagequant speed, 1 (slow, best) .. 10 (fast)
    };

    static Result<std::unique_ptr<GIFSink>> create(const fs::path& path, Size canvas, Options options);
    static Result<std::unique_ptr<GIFSink>> create(const fs::path& path, Size canvas) { return create(path, canvas, Options{}); }
    ~GIFSink();
    GIFSink(const GIFSink&) = delete;
    GIFSink& operator=(const GIFSink&) = delete;

    // Draws the frame shown from output time `t` (seconds) on. Writes the frame before it,
    // whose delay is now known.
    Status append(const Image& image, double t);
    // Writes the last frame with one slot's delay and closes the file.
    Status finish();
    // Closes and removes the partial file. Safe to call more than once.
    void cancel();

    int framesWritten() const { return m_framesWritten; }
    Size canvas() const { return m_canvas; }

    // The delay written for a frame shown `seconds`: hundredths, at least 0.02 s.
    static int delayHundredths(double seconds);

private:
    GIFSink(const fs::path& path, Size canvas, Options options);
    Status writeFrame(const Image& frame, double delay);

    struct Gif;
    fs::path m_path;
    Size m_canvas;
    Options m_options;
    std::unique_ptr<Gif> m_gif;
    Image m_pending;
    double m_pendingTime = 0;
    bool m_hasPending = false;
    // The source colours (RGBA) last sent for each pixel, to find what changed.
    std::vector<uint8_t> m_shown;
    int m_framesWritten = 0;
    bool m_closed = false;
};

} // namespace plim
