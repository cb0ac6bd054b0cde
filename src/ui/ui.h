#pragma once
// The desktop interface: Plim as an application with a tray item and windows, in Qt 6
// Widgets. It reaches recording, the library and sharing through app/ and the subsystems
// below; nothing below this folder includes Qt.

#include <string>
#include <vector>

namespace plim {

// Runs the desktop application for this session (or forwards the command line's verb to
// the one already running) and returns the process exit status.
int runDesktopApp(const std::vector<std::string>& argv);

} // namespace plim
