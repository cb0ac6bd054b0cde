#pragma once
// A KDE desktop, headless, with the real desktop portal: its own session bus (no service
// folder, so nothing starts behind the test's back), PipeWire and WirePlumber, KWin on its
// virtual backend (OpenGL through Mesa's software renderer), the permission store, the KDE
// portal backend and xdg-desktop-portal, started in that order.
//
// KWin 5.27's virtual backend never reports a finished frame to its screen cast, so a cast
// of the virtual display starts but sends no picture; a cast of a window does.

#include "testkit/headless_desktop.h"

#include <string>

namespace plim::testkit {

class KdeSession final : public HeadlessDesktop {
public:
    explicit KdeSession(int width = 1280, int height = 800);

    // KWin's id of the window whose application id is `appId` ("{...}"); empty while there
    // is none.
    std::string windowId(const std::string& appId);
    // Grants a screen cast of window `id` in the permission store, as an earlier choice in
    // the desktop's dialog would have, and returns its restore token (empty if refused).
    std::string grantWindowCast(const std::string& id);

private:
    int m_scripts = 0;
};

} // namespace plim::testkit
