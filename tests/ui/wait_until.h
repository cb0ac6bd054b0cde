#pragma once
// Running the GUI thread's event loop until something holds, and finding a window's parts.

#include <QString>
#include <QTest>
#include <QWidget>

#include <gtest/gtest.h>

#include <chrono>

namespace plim::testkit {

// Runs the event loop until `done` holds or `seconds` pass; returns whether it holds.
template <typename F>
bool waitUntil(F done, double seconds = 10)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        QTest::qWait(10);
    }
    return true;
}

// The child widget named `name`; a test failure when there is none.
template <typename T>
T* child(QWidget& parent, const char* name)
{
    T* found = parent.findChild<T*>(QString::fromUtf8(name));
    EXPECT_NE(found, nullptr) << name;
    return found;
}

} // namespace plim::testkit
