#pragma once
// The desktop application's handle on a LiveSession. Going live opens the screen and builds
// the stage, and stopping joins the session's threads, so the session lives on a thread of
// its own, which also runs its half-second health check; the GUI thread calls in here and
// hears back through signals. The monitor sink is shared: the live bar reads its newest
// frame on the GUI thread.
//
// Threads: every public call and every signal is on the GUI thread.

#include "live/live_session.h"
#include "live/live_sinks.h"

#include "ui/worker_thread.h"

#include <QObject>

#include <functional>
#include <memory>
#include <vector>

class QTimer;

namespace plim {

class LiveDriver : public QObject {
    Q_OBJECT
public:
    enum class State { idle, starting, live };
    Q_ENUM(State)

    // `cameras` makes the camera sinks at each start (the ones available then).
    using CameraSinks = std::function<std::vector<std::shared_ptr<LiveSink>>()>;
    explicit LiveDriver(LiveServices services, CameraSinks cameras, QObject* parent = nullptr);
    // Stops a live run first, then ends the session's thread.
    ~LiveDriver() override;

    // Goes live into the monitor and the cameras; failures come as failed().
    void start(LiveSessionOptions options);
    void stop();
    // Blocks until a live run has stopped (quitting).
    void stopNow();

    State state() const { return m_state; }
    const std::shared_ptr<MonitorLiveSink>& monitor() const { return m_monitor; }

signals:
    void stateChanged(plim::LiveDriver::State state);
    // "Opening your screen", ... while starting.
    void progress(const QString& text);
    // The sinks' health line every half second, with the ladder's note when it moved.
    void health(const QString& line, const QString& note);
    // Parts left out (a camera that did not open): one sentence each.
    void notice(const QString& sentence);
    // Going live failed, or the run ended by itself: the sentence that says why.
    void failed(const QString& sentence);

private:
    void onWorker(std::function<void()> work, bool wait = false) { m_worker.post(std::move(work), wait); }
    void onGui(std::function<void()> work) { postTo(this, std::move(work)); }
    void setState(State state);
    void checkOnWorker();
    void stopOnWorker();

    WorkerThread m_worker;
    CameraSinks m_cameras;
    std::shared_ptr<MonitorLiveSink> m_monitor = std::make_shared<MonitorLiveSink>();
    // Worker side.
    std::unique_ptr<LiveSession> m_session;
    QTimer* m_ticker = nullptr;
    // GUI side.
    State m_state = State::idle;
};

} // namespace plim
