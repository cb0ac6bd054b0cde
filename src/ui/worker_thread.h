#pragma once
// A thread with an event loop of its own, for the calls that block (starting a capture,
// finishing its writers, going live), posted from the GUI thread and run there in order.
// Timers that the posted work makes with context() as parent tick on that thread.
//
// Threads: post() and finish() are called on the GUI thread; the work runs on the worker.

#include <QObject>
#include <QThread>

#include <functional>

namespace plim {

class WorkerThread {
public:
    explicit WorkerThread(const char* name);
    // Ends the thread as finish() does, with no last work.
    ~WorkerThread();
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Queues `work`; with `wait`, returns only once it has run.
    void post(std::function<void()> work, bool wait = false);
    // Runs `last` on the thread and waits for it, deletes what lives on the thread, then ends it.
    void finish(std::function<void()> last = {});

    QObject* context() const { return m_context; }

private:
    QThread m_thread;
    QObject* m_context = nullptr; // lives on m_thread
};

// Queues `work` onto `receiver`'s thread (the GUI thread for the drivers' signals).
inline void postTo(QObject* receiver, std::function<void()> work)
{
    QMetaObject::invokeMethod(receiver, std::move(work), Qt::QueuedConnection);
}

} // namespace plim
