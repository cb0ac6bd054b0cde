// The ui tests' main: one X server (Xvfb) and one session bus (dbus-daemon) for the process,
// and one QApplication on them, so every test drives real windows in process and nothing
// reaches the desktop the tests run in. Listing the tests needs none of them.

#include "testkit/servers.h"
#include "testkit/session_bus.h"

#include <QApplication>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests))
        return RUN_ALL_TESTS();
    auto xvfb = std::make_unique<plim::testkit::XvfbServer>("1280x720x24");
    if (!xvfb->isUp()) {
        std::fprintf(stderr, "ui_tests: no X server could be started (Xvfb); the window tests cannot run.\n");
        return 1;
    }
    // Qt connects to the session bus once, as it starts.
    plim::testkit::TestSessionBus bus;
    if (!bus.ready()) {
        std::fprintf(stderr, "ui_tests: no session bus could be started (dbus-daemon); the window tests cannot run.\n");
        return 1;
    }
    setenv("DISPLAY", xvfb->display().c_str(), 1);
    unsetenv("WAYLAND_DISPLAY");
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    int result = 0;
    {
        QApplication app(argc, argv);
        result = RUN_ALL_TESTS();
    }
    return result;
}
