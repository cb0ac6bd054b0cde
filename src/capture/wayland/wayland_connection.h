#pragma once
// A connection to the Wayland compositor of this session ($WAYLAND_DISPLAY) with what
// capture needs from it: shared memory (wl_shm), the outputs with their names and logical
// geometry (xdg-output), and wlr-screencopy. Private to capture/wayland/.
//
// Contract: a connection is used by one thread at a time and dispatches its events only
// inside its own calls (open(), roundtrip(), dispatchUntil(), ScreenCopy::take()), on the
// calling thread; it has no thread of its own. The desktop keeps one for its queries behind
// a lock; each screen source opens its own and dispatches it on its capture thread.

#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct wl_buffer;
struct wl_display;
struct wl_output;
struct wl_registry;
struct wl_shm;
struct zwlr_screencopy_frame_v1;
struct zwlr_screencopy_manager_v1;
struct zxdg_output_manager_v1;
struct zxdg_output_v1;

namespace plim {

class WaylandConnection {
public:
    struct Output {
        uint32_t global = 0;
        wl_output* handle = nullptr;
        zxdg_output_v1* xdg = nullptr;
        std::string name;     // "HDMI-A-1", from xdg-output (or wl_output 4)
        Rect frame;           // logical position and size, in global points
        int pixelWidth = 0;   // the current mode, as the hardware scans it out
        int pixelHeight = 0;
        int32_t transform = 0; // wl_output.transform
        int32_t scale = 1;
        bool gone = false;     // the compositor removed it
    };

    // The compositor named by $WAYLAND_DISPLAY (else wayland-0), its globals bound and its
    // outputs described. Fails with a sentence when no compositor answers.
    static Result<std::unique_ptr<WaylandConnection>> open();
    ~WaylandConnection();
    WaylandConnection(const WaylandConnection&) = delete;
    WaylandConnection& operator=(const WaylandConnection&) = delete;

    std::string name() const { return m_name; }
    wl_display* display() const { return m_display; }
    wl_shm* shm() const { return m_shm; }
    zwlr_screencopy_manager_v1* screencopy() const { return m_screencopy; }
    uint32_t screencopyVersion() const { return m_screencopyVersion; }

    // Outputs that are still there, in the order the compositor announced them.
    std::vector<const Output*> outputs() const;
    const Output* output(const std::string& name) const;
    // The output under a point in global points, else nothing.
    const Output* outputAt(double x, double y) const;
    // All outputs together.
    Rect bounds() const;
    bool isGone(const Output& output) const { return output.gone; }

    // Sends what is queued and waits for the compositor to answer it.
    Status roundtrip();
    // Sends what is queued without waiting (a broken connection shows at the next dispatch).
    void flush();
    // Dispatches events until `done` holds or the uptime instant `until` passes; false on
    // the deadline, a failure when the connection broke.
    Result<bool> dispatchUntil(const std::function<bool()>& done, double until);

    // The sentence for a connection that broke.
    Error broken() const;

private:
    WaylandConnection() = default;
    static void onGlobal(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version);
    static void onGlobalRemove(void* data, wl_registry* registry, uint32_t name);
    void describe(Output& output);

    std::string m_name;
    wl_display* m_display = nullptr;
    wl_registry* m_registry = nullptr;
    wl_shm* m_shm = nullptr;
    zwlr_screencopy_manager_v1* m_screencopy = nullptr;
    uint32_t m_screencopyVersion = 0;
    zxdg_output_manager_v1* m_xdgOutputs = nullptr;
    std::vector<std::unique_ptr<Output>> m_outputs;
};

// A wl_shm buffer of one layout, backed by an anonymous memory file.
class ShmBuffer {
public:
    struct Layout {
        uint32_t format = 0; // wl_shm.format
        int width = 0;
        int height = 0;
        int stride = 0;
        bool operator==(const Layout&) const = default;
    };
    static Result<std::unique_ptr<ShmBuffer>> create(wl_shm* shm, const Layout& layout);
    ~ShmBuffer();
    ShmBuffer(const ShmBuffer&) = delete;
    ShmBuffer& operator=(const ShmBuffer&) = delete;
    const Layout& layout() const { return m_layout; }
    wl_buffer* buffer() const { return m_buffer; }
    const uint8_t* data() const { return m_data; }

private:
    ShmBuffer() = default;
    Layout m_layout;
    wl_buffer* m_buffer = nullptr;
    uint8_t* m_data = nullptr;
    size_t m_bytes = 0;
};

// One wlr-screencopy frame of an output (or of a region of it): asked for, handed a
// buffer when the compositor has named its layouts, then ready or failed.
class ScreenCopy {
public:
    enum class State { waiting, copying, ready, failed };
    // `region` in the output's logical coordinates; nothing for the whole output. The
    // pointer is drawn into the picture `withPointer`.
    ScreenCopy(WaylandConnection& wayland, const WaylandConnection::Output& output, std::optional<Rect> region,
        bool withPointer);
    ~ScreenCopy();
    ScreenCopy(const ScreenCopy&) = delete;
    ScreenCopy& operator=(const ScreenCopy&) = delete;

    // Copies into a buffer from `pool` (made or remade to the layout the compositor asks for)
    // once the layouts are known: at once, or when the output next changes (`damaged`).
    // Returns a failure when no layout is one Plim reads.
    Status copyWhenKnown(std::unique_ptr<ShmBuffer>& pool, bool damaged);
    State state() const { return m_state; }
    bool layoutKnown() const { return m_layoutDone; }
    double shownAt() const { return m_shownAt; } // uptime of the picture, once ready
    bool yInverted() const { return m_yInvert; }

private:
    friend struct ScreenCopyEvents;
    WaylandConnection& m_wayland;
    zwlr_screencopy_frame_v1* m_frame = nullptr;
    std::optional<ShmBuffer::Layout> m_layout;
    bool m_layoutDone = false;
    bool m_yInvert = false;
    State m_state = State::waiting;
    double m_shownAt = 0;
};

// The picture in `buffer` as the output shows it: rows flipped back when the compositor
// wrote them bottom up, the output's transform undone, BGRA with alpha set. Writes into
// `into` when it has the right size, else into a new picture.
Image pictureFromBuffer(const ShmBuffer& buffer, bool yInverted, int32_t transform, Image into = {});

// Takes one picture of `region` of `output` (logical coordinates; nothing: all of it).
Result<Image> takePicture(WaylandConnection& wayland, const WaylandConnection::Output& output,
    std::optional<Rect> region, bool withPointer);

} // namespace plim
