#pragma once
// The desktop Plim records: what it offers (its displays, its windows, any area of the
// screen) and the sources that read a choice of it: the screen, the pointer, clicks and
// keys. One backend per kind of desktop session, picked once by create(): X11 (capture/x11/)
// or, on a Wayland session (capture/wayland/), wlr where the compositor offers wlr-screencopy,
// else the desktop portal's screen cast (GNOME, KDE).
//
// Contract:
// - create() fails with the user's sentence when there is no desktop it can record (no X
//   server answers, a Wayland session with neither wlr-screencopy nor a screen-cast portal).
// - The queries may be called from any thread; each asks the desktop afresh.
// - The sources it makes keep their own connections and contracts (screen_source.h,
//   pointer_source.h, click_source.h, key_source.h); they may outlive the Desktop.

#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"
#include "capture/screen_source.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plim {

class ClickSource;
class KeyActivitySource;
class KeySource;
class PointerSource;
class WindowFrameSource;

// A display the desktop shows, in global points.
struct DesktopDisplay {
    std::string name; // "HDMI-1"; "screen" when the desktop names none
    Rect frame;
    bool primary = false;
};

// A top-level window, in global points.
struct DesktopWindow {
    uint32_t id = 0;
    std::string title;
    Rect frame;
};

// The pointer, key-activity, window-frame, click and key sources, alive while `owner` is.
struct DesktopInputs {
    std::shared_ptr<void> owner;
    PointerSource* pointer = nullptr;
    KeyActivitySource* keyActivity = nullptr;
    WindowFrameSource* windowFrames = nullptr;
    ClickSource* clicks = nullptr;
    KeySource* keys = nullptr;
    // A sentence for each input the desktop cannot hand out; the recording rolls on without it.
    std::vector<std::string> missing;
};

// Which backend reads the desktop: the session's, or one the user forces.
enum class DesktopBackend { automatic, x11, wlr, portal };

class Desktop {
public:
    // The desktop of this session, or the X display named by `display`; `backend` forces one.
    static Result<std::unique_ptr<Desktop>> create(const std::optional<std::string>& display = std::nullopt,
        DesktopBackend backend = DesktopBackend::automatic);
    virtual ~Desktop() = default;

    // One sentence saying which backend create() picked and why.
    const std::string& choice() const { return m_choice; }

    // The display's name as the desktop knows it (":0").
    virtual std::string name() const = 0;
    virtual std::vector<DesktopDisplay> displays() const = 0;
    // Windows a user would pick, front to back where the desktop says.
    virtual std::vector<DesktopWindow> windows() const = 0;
    // Where the window lies now, or nothing when it is gone.
    virtual std::optional<Rect> windowFrame(uint32_t id) const = 0;
    // The window's icon, the smallest of its sizes at least `size` pixels wide (else its
    // largest); nothing when it has none.
    virtual std::optional<Image> windowIcon(uint32_t id, int size) const = 0;
    // A still of `area` (global points) as the screen shows it now: a display's thumbnail.
    // Fails with a sentence when the desktop hands out no picture.
    virtual Result<Image> picture(const Rect& area) const = 0;
    // Where an area may lie: all displays together.
    virtual Rect bounds() const = 0;

    // Lets the user click a window and returns it; a sentence when nothing was picked.
    virtual Result<uint32_t> pickWindow() = 0;

    virtual Result<std::unique_ptr<ScreenSource>> screen(const ScreenSubject& subject) = 0;
    virtual Result<DesktopInputs> inputs() = 0;

private:
    std::string m_choice;
};

// The desktop picture GNOME (its background setting) or KDE (the Plasma configuration)
// reports, when it names a file that exists. Asks the desktop's settings, not its display
// server, so it answers without one.
std::optional<std::filesystem::path> desktopWallpaper();

} // namespace plim
