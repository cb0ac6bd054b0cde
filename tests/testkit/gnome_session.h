#pragma once
// A GNOME desktop, headless, with the real desktop portal: its own session bus (a
// dbus-daemon with no service folder, so nothing starts behind the test's back), PipeWire
// and WirePlumber, mutter with a virtual monitor, the permission store, the GNOME portal
// backend and xdg-desktop-portal, each started in that order and stopped by process id.
// Under root every process runs as `nobody`, in a runtime folder and home of its own; the
// bus lets root in too, so the test (and plimctl) may call the portal.
//
// The pointer exists once mutter's RemoteDesktop session has made a virtual one: the
// session moves it and clicks, as a user would.
//
// With gnome-shell in mutter's place the desktop also lists its windows (the GNOME portal
// finds a window to share through the shell), so a window's cast can be granted too. The
// shell wants a system bus: it gets one of its own, as empty as the session bus.

#include "testkit/testkit.h"

#include <memory>
#include <string>
#include <vector>

namespace sdbus {
class IConnection;
}

namespace plim::testkit {

class GnomeSession {
public:
    enum class Compositor { mutter, shell };
    explicit GnomeSession(const std::string& monitor = "1280x800", Compositor compositor = Compositor::mutter);
    ~GnomeSession();
    GnomeSession(const GnomeSession&) = delete;
    GnomeSession& operator=(const GnomeSession&) = delete;

    bool isUp() const { return m_up; }
    // Why it is not up, for the skip.
    const std::string& trouble() const { return m_trouble; }
    // The variables a client of this desktop needs (bus, runtime folder, Wayland socket).
    std::vector<std::string> environment() const;
    const fs::path& folder() const { return m_dir.path(); }

    // Starts `argv` as the desktop's user, stopped with the desktop.
    ChildProcess& startClient(const std::vector<std::string>& argv);
    // `argv` run as the desktop's user (the portal tells apps apart by their processes, which
    // it must be able to read), with the caller's environment.
    std::vector<std::string> asUser(std::vector<std::string> argv) const;
    // Hands `folder` and what it holds to the desktop's user.
    void handOver(const fs::path& folder) const;

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
    std::unique_ptr<ChildProcess> start(const std::string& name, std::vector<std::string> argv,
        std::vector<std::string> extraEnv = {});
    bool waitForName(const std::string& name);
    std::string grant(const std::string& stream);
    bool shellAnswers(int shell);
    struct RemoteDesktop;

    TempDir m_dir;
    fs::path m_runtime, m_home;
    std::vector<std::unique_ptr<ChildProcess>> m_processes; // in start order; stopped in reverse
    std::unique_ptr<ChildProcess> m_portal;
    std::unique_ptr<RemoteDesktop> m_remote;
    std::unique_ptr<sdbus::IConnection> m_windowLister; // asks the shell for its windows
    bool m_systemBus = false;
    bool m_up = false;
    std::string m_trouble;
};

} // namespace plim::testkit
