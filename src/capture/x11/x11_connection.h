#pragma once
// One XCB connection to an X server, with the helpers the X11 backends share: the root
// window, the RandR outputs, a window's frame in root coordinates. XCB connections are
// thread-safe, so one object may serve several threads.

#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"
#include "capture/desktop.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct xcb_connection_t;
struct xcb_screen_t;

namespace plim {

class X11Connection {
public:
    // A RandR output that shows a picture, with its place on the root window.
    struct Output {
        std::string name;
        Rect frame;
        bool primary = false;
    };

    // Opens the display named by `name`, else $DISPLAY. Fails with "No display is
    // available to record." when there is no X server to talk to.
    static Result<std::unique_ptr<X11Connection>> open(const std::optional<std::string>& name = std::nullopt);
    ~X11Connection();
    X11Connection(const X11Connection&) = delete;
    X11Connection& operator=(const X11Connection&) = delete;

    xcb_connection_t* connection() const { return m_connection; }
    xcb_screen_t* screen() const { return m_screen; }
    uint32_t root() const;
    Size rootSize() const;

    // Connected outputs with a mode; the whole root as one output named "screen" when
    // RandR reports none.
    std::vector<Output> outputs() const;

    // The window's frame in root coordinates, or nothing when the window is gone.
    std::optional<Rect> windowFrame(uint32_t window) const;

    // Top-level windows that show, front first: the window manager's client list, else
    // (no window manager) every mapped child of the root.
    std::vector<DesktopWindow> windows() const;

    // The window's icon (_NET_WM_ICON): the smallest of its sizes at least `size` pixels
    // wide, else its largest, premultiplied BGRA; nothing when it has none that reads.
    std::optional<Image> windowIcon(uint32_t window, int size) const;

    // A still of `area` (root coordinates, kept inside the root) as the screen shows it now,
    // opaque BGRA. Fails with a sentence when the server hands out no picture.
    Result<Image> picture(const Rect& area) const;

    // The pointer in root coordinates, or nothing when it cannot be read.
    std::optional<Point> pointer() const;

    // Lets the user click a window: grabs the pointer with a crosshair until a button
    // goes down and returns the top-level window under it. Fails with a sentence when the
    // pointer cannot be grabbed or nothing but the desktop was clicked.
    Result<uint32_t> pickWindow() const;

    // True when the server has the named extension.
    bool hasExtension(const char* name) const;

    const std::string& displayName() const { return m_name; }

private:
    X11Connection() = default;
    xcb_connection_t* m_connection = nullptr;
    xcb_screen_t* m_screen = nullptr;
    std::string m_name;
};

// The icon in a _NET_WM_ICON property's words (see X11Connection::windowIcon); nothing when
// no entry reads. An entry claiming more pixels than there are ends the list.
std::optional<Image> iconFromWords(std::span<const uint32_t> words, int size);

} // namespace plim
