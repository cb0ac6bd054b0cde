#pragma once
// Running the GUI thread's event loop until something holds, finding a window's parts,
// keeping pictures of windows, and noting what a fake desktop service was asked.

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QTest>
#include <QWidget>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

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

// A picture of the window for a person to look at, where PLIM_UI_SHOTS names a folder.
inline void keepShot(QWidget& window, const std::string& name)
{
    if (const char* folder = std::getenv("PLIM_UI_SHOTS"))
        window.grab().save(QString::fromStdString((std::filesystem::path(folder) / (name + ".png")).string()));
}

// What a fake desktop service was asked, in order; the desktop answers yes while it obliges.
struct CallLog {
    QStringList calls() const
    {
        QMutexLocker lock(&m_lock);
        return m_calls;
    }
    bool note(const QString& call)
    {
        QMutexLocker lock(&m_lock);
        m_calls << call;
        return obliges;
    }
    std::atomic<bool> obliges = true;

private:
    mutable QMutex m_lock;
    QStringList m_calls;
};

} // namespace plim::testkit
