#pragma once
// A GNOME desktop, headless, with the real desktop portal: its own session bus, PipeWire and
// WirePlumber, mutter with a virtual monitor, the permission store, the GNOME portal backend
// and xdg-desktop-portal, started in that order.
//
// The pointer exists once mutter's RemoteDesktop session has made a virtual one: the
// session moves it and clicks, as a user would.
//
// With gnome-shell in mutter's place the desktop also lists its windows (the GNOME portal
// finds a window to share through the shell), so a window's cast can be granted too. The
// shell wants a system bus: it gets one of its own, as empty as the session bus.

#include "testkit/headless_desktop.h"

#include <memory>
#include <string>
#include <vector>

namespace sdbus {
class IConnection;
class Variant;
}

namespace plim::testkit {

class GnomeSession final : public HeadlessDesktop {
public:
    enum class Compositor { mutter, shell };
    explicit GnomeSession(const std::string& monitor = "1280x800", Compositor compositor = Compositor::mutter);
    ~GnomeSession() override;

    // Grants a screen cast of the virtual monitor in the permission store, as an earlier
    // choice in the desktop's dialog would have, and returns its restore token.
    std::string grantScreenCast();

    // A window as the shell lists it to the portal (which knows a window by these).
    struct Window {
        std::string appId, title;
        int width = 0, height = 0;
    };
    // The shell's windows; none without the shell (or while it will not list them).
    std::vector<Window> windows();
    // Grants a screen cast of the window the shell lists as `window`, as grantScreenCast().
    std::string grantWindowCast(const Window& window);

    // Moves the pointer to (x, y) in global points (pushed to the top-left corner first,
    // then moved by that much) and presses and releases the left button.
    bool movePointer(double x, double y);
    bool click();

    // Stops the portal (xdg-desktop-portal itself), as a crash would.
    void stopPortal();
    // Ends every screen cast the GNOME portal is running, as the user's "stop sharing" would;
    // false when there was none or the portal refused.
    bool stopScreenCasts();
    // Restarts the portal with the backends that the `.portal` files in `backends` name
    // instead of the installed ones; false when it did not come up.
    bool restartPortal(const fs::path& backends);

private:
    std::string grant(uint32_t type, const sdbus::Variant& source);
    bool shellAnswers(int shell);
    struct RemoteDesktop;

    // Destroyed in reverse: the window lister and the remote desktop session before the
    // portal, and all before the desktop's processes.
    std::unique_ptr<ChildProcess> m_portal;
    std::unique_ptr<RemoteDesktop> m_remote;
    std::unique_ptr<sdbus::IConnection> m_windowLister; // asks the shell for its windows
};

} // namespace plim::testkit
