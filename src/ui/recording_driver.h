#pragma once
// The desktop application's handle on RecordingController. The controller's calls block
// (starting the capture, finishing every writer, replim), so they run on a controlling
// thread of their own; the GUI thread calls in here and hears the state back as signals.
//
// Threads: every public call and every signal is on the GUI thread. onPlimFinished runs on
// the GUI thread too, after the controller has handed the finished plim over.

#include "app/recording_controller.h"
#include "live/live_session.h"

#include "ui/worker_thread.h"

#include <QObject>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

class QTimer;

namespace plim {

struct RecordingServices;

class RecordingDriver : public QObject {
    Q_OBJECT
public:
    // What the tray glyph and the live bar show.
    enum class State { idle, starting, rolling, paused, staging };
    Q_ENUM(State)

    explicit RecordingDriver(std::filesystem::path libraryFolder, QObject* parent = nullptr);
    // Finishes a rolling recording first, then ends the controlling thread.
    ~RecordingDriver() override;

    const std::filesystem::path& libraryFolder() const { return m_libraryFolder; }

    // Starts at once (the countdown ran before); refusals and failures come as failed().
    void start(const CaptureSettings& settings);
    // Called when the countdown begins and when it is cancelled, so the state shows it.
    void noteCountdown(bool running);
    void stop();
    void togglePause();
    void mark();
    void replim();
    // Blocks until a rolling recording is finished on disk; the plim window is skipped.
    void finishBeforeQuit();

    State state() const { return m_state; }
    bool isRolling() const { return m_state == State::rolling || m_state == State::paused; }
    // What going live must know of the recording, as the controller last told: rolling
    // (a countdown or start counts) or being finished.
    RecordingActivity activity() const;
    double elapsed() const { return m_elapsed; }
    int markCount() const { return m_markCount; }
    // The recorded picture's place on the screen, in global points, while rolling.
    const Rect& subjectFrame() const { return m_subjectFrame; }
    const ScreenSubject& subject() const { return m_subject; }

    std::function<void(const RawPlim&, const std::optional<std::string>& failure)> onPlimFinished;

signals:
    void stateChanged(plim::RecordingDriver::State state);
    void elapsedChanged(double seconds);
    void marksChanged(int count);
    // Something asked for is not being recorded: one whole sentence.
    void inputNotice(const QString& sentence);
    // A start refused or a recording that failed: the failure's own sentence.
    void failed(const QString& sentence);

private:
    void onWorker(std::function<void()> work, bool wait = false) { m_worker.post(std::move(work), wait); }
    void onGui(std::function<void()> work) { postTo(this, std::move(work)); }
    void setState(State state);
    void finishOnWorker(std::optional<std::string> early);
    void tickOnWorker();
    // After record() or replim() on the controlling thread: rolling, or the failure.
    void reportStart(const Status& started);

    std::filesystem::path m_libraryFolder;
    WorkerThread m_worker;
    // Worker-thread side.
    std::unique_ptr<RecordingController> m_controller;
    std::unique_ptr<RecordingServices> m_services;
    QTimer* m_ticker = nullptr;
    bool m_quitting = false;
    // GUI-thread side.
    State m_state = State::idle;
    double m_elapsed = 0;
    int m_markCount = 0;
    Rect m_subjectFrame;
    ScreenSubject m_subject;
};

} // namespace plim
