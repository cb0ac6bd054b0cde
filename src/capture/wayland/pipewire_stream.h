#pragma once
// One video stream of a PipeWire remote the desktop portal opened: the newest picture, the
// instant it shows on the uptime clock, and the pointer from the stream's cursor metadata.
// Private to capture/wayland/.
//
// Contract: the stream runs on its own PipeWire thread ("plim-screencast"). Each buffer it
// is handed is copied once, into a picture of its own (cropped to `crop` when one is set,
// BGRA with alpha set); empty buffers are skipped. A stream that keeps its first size (a
// window's, whose picture grows and shrinks with the window) hands out every picture at
// the first one's size, cropped or padded with black from its top-left corner. The queries
// may be called from any thread. Pictures handed out by takeFresh() belong to the caller; the
// stream reuses only pictures no one else holds.

#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct spa_meta_region;

namespace plim {

class PipeWireStream {
public:
    struct Cursor {
        Point position;    // the pointer's tip, in the stream's pixels
        Point hotspot;     // of the last bitmap the stream sent
        Image bitmap;      // the last bitmap the stream sent, BGRA; empty when none came
    };

    // Connects to `node` over the remote `fd` (taken over). `crop` in the stream's logical
    // points of `logicalSize` (the portal's size of the stream; nothing: its pixels).
    static Result<std::unique_ptr<PipeWireStream>> open(int fd, uint32_t node, std::optional<Rect> crop,
        std::optional<Size> logicalSize, bool keepsFirstSize = false);
    ~PipeWireStream();
    PipeWireStream(const PipeWireStream&) = delete;
    PipeWireStream& operator=(const PipeWireStream&) = delete;

    // Waits until the first picture has come (true), the uptime `until` passes (false) or
    // the stream breaks (its sentence).
    Result<bool> waitForPicture(double until);
    // The picture that came since the last call, with its uptime, else nothing.
    std::optional<std::pair<Image, double>> takeFresh();
    // Why the stream stopped, once it has: it failed, lost its connection, or stayed paused
    // longer than a format change takes (the desktop stopped sharing). A short pause is not
    // a stop.
    std::optional<std::string> broken() const;

    // The stream's size in pixels (0 before the format is agreed), the size of the pictures
    // it hands out (0 before the first), and pixels per point.
    Size pixelSize() const;
    Size pictureSize() const;
    double scale() const;
    // The pointer as the last cursor metadata said; nothing while none came or it is hidden.
    std::optional<Cursor> cursor() const;

    // Buffers copied, buffers skipped as empty, and formats agreed (a resize may bring a new
    // one) so far.
    int64_t copiedFrames() const { return m_copied.load(); }
    int64_t emptyBuffers() const { return m_empty.load(); }
    int64_t formatsAgreed() const { return m_formats.load(); }

    struct Loop; // the PipeWire side, in the .cpp

private:
    PipeWireStream() = default;
    friend struct Loop;
    void onBuffer(const void* data, int stride, uint32_t size, double uptime);
    void onCursor(const void* meta, size_t bytes);
    void onFormat(uint32_t format, uint32_t width, uint32_t height);
    void onMetaCrop(const spa_meta_region& region);
    // The uptime of a picture the stream stamped `streamTime` (seconds; below 0: unstamped)
    // and that arrived at `arrived`.
    double uptimeOf(double streamTime, double arrived);
    void onBroken(std::string why);
    void onStreaming(bool streaming);
    Image recycled(int width, int height);

    std::unique_ptr<Loop> m_loop;
    std::optional<Rect> m_crop;
    std::optional<Size> m_logical;
    std::optional<Rect> m_metaCrop; // the part of the buffer the stream says holds the picture
    bool m_keepsFirstSize = false;

    mutable std::mutex m_lock; // guards everything below
    std::condition_variable m_changed; // a picture came or the stream broke
    uint32_t m_format = 0;
    int m_width = 0, m_height = 0;
    int m_pictureWidth = 0, m_pictureHeight = 0; // of the first picture, or the last one
    Image m_fresh;
    double m_freshAt = 0;
    double m_lastAt = 0;
    bool m_seen = false;
    std::optional<double> m_clockOffset; // uptime minus the stream's time, when its clock is another
    std::optional<Cursor> m_cursor;
    Point m_hotspot;
    Image m_bitmap;
    std::optional<std::string> m_broken;
    std::optional<double> m_pausedSince; // uptime the stream left streaming, while it is out
    std::vector<Image> m_pool;
    std::atomic<int64_t> m_copied{0};
    std::atomic<int64_t> m_empty{0};
    std::atomic<int64_t> m_formats{0};
};

} // namespace plim
