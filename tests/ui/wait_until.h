#pragma once
// Running the GUI thread's event loop until something holds.

#include <QTest>

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

} // namespace plim::testkit
