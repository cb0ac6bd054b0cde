#include "ui/recording_driver.h"

#include "app/recording_services.h"
#include "base/log.h"

#include <QTimer>

namespace plim {

RecordingDriver::RecordingDriver(std::filesystem::path libraryFolder, QObject* parent)
    : QObject(parent), m_libraryFolder(std::move(libraryFolder)), m_worker("recording")
{
    onWorker([this] {
        RecordingController::Environment env;
        env.libraryFolder = m_libraryFolder;
        auto notice = [this](const std::string& sentence) {
            onGui([this, sentence] { emit inputNotice(QString::fromStdString(sentence)); });
        };
        env.onInputMissing = notice;
        // The capture stopped by itself (a window closed, the disk filled): finish here.
        env.onEndedEarly = [this](const std::string& headline) {
            onWorker([this, headline] { finishOnWorker(headline); });
        };
        env.onPlimFinished = [this](const RawPlim& plim, const std::optional<std::string>& failure) {
            if (m_quitting)
                return;
            onGui([this, plim, failure] {
                if (onPlimFinished)
                    onPlimFinished(plim, failure);
            });
        };
        m_services = std::make_unique<RecordingServices>();
        m_services->attach(env, notice);
        m_controller = std::make_unique<RecordingController>(std::move(env));
        // Ticks only while a recording rolls, so an idle Plim stays asleep.
        m_ticker = new QTimer(m_worker.context());
        m_ticker->setInterval(250);
        QObject::connect(m_ticker, &QTimer::timeout, m_worker.context(), [this] { tickOnWorker(); });
    });
}

RecordingDriver::~RecordingDriver()
{
    m_worker.finish([this] {
        m_quitting = true;
        m_controller.reset(); // finishes a recording still rolling
        m_services.reset();
    });
}

void RecordingDriver::setState(State state)
{
    if (state == m_state)
        return;
    m_state = state;
    emit stateChanged(state);
}

RecordingActivity RecordingDriver::activity() const
{
    switch (m_state) {
    case State::idle: return RecordingActivity::none;
    case State::starting:
    case State::rolling:
    case State::paused: return RecordingActivity::rolling;
    case State::staging: return RecordingActivity::finishing;
    }
    return RecordingActivity::none;
}

void RecordingDriver::noteCountdown(bool running)
{
    if (m_state == State::idle || m_state == State::starting)
        setState(running ? State::starting : State::idle);
}

void RecordingDriver::start(const CaptureSettings& settings)
{
    setState(State::starting);
    m_subject = settings.subject;
    onWorker([this, settings] { reportStart(m_controller->record(settings, 0)); });
}

void RecordingDriver::reportStart(const Status& started)
{
    if (!started) {
        m_controller->dismissFailure();
        std::string sentence = started.error().sentence;
        onGui([this, sentence] {
            setState(State::idle);
            emit failed(QString::fromStdString(sentence));
        });
        return;
    }
    m_ticker->start();
    Rect frame = m_controller->session()->subjectFrame();
    onGui([this, frame] {
        m_subjectFrame = frame;
        m_elapsed = 0;
        m_markCount = 0;
        emit marksChanged(0);
        emit elapsedChanged(0);
        setState(State::rolling);
    });
}

void RecordingDriver::stop()
{
    onWorker([this] { finishOnWorker(std::nullopt); });
}

void RecordingDriver::finishBeforeQuit()
{
    onWorker(
        [this] {
            m_quitting = true;
            finishOnWorker(std::nullopt);
        },
        true);
}

void RecordingDriver::finishOnWorker(std::optional<std::string> early)
{
    if (!m_controller || !m_controller->session())
        return;
    onGui([this] { setState(State::staging); });
    m_ticker->stop();
    auto outcome = m_controller->finishRolling(early);
    m_controller->dismissFailure();
    std::optional<std::string> failure;
    if (!outcome.isFinished())
        failure = outcome.sentence;
    onGui([this, failure] {
        m_elapsed = 0;
        setState(State::idle);
        if (failure)
            emit failed(QString::fromStdString(*failure));
    });
}

void RecordingDriver::tickOnWorker()
{
    if (!m_controller || m_controller->phase() != RecordingController::Phase::rolling)
        return;
    double seconds = m_controller->elapsed();
    bool paused = m_controller->isPaused();
    onGui([this, seconds, paused] {
        if (!isRolling())
            return;
        m_elapsed = seconds;
        emit elapsedChanged(seconds);
        setState(paused ? State::paused : State::rolling);
    });
}

void RecordingDriver::togglePause()
{
    onWorker([this] {
        m_controller->togglePause();
        bool paused = m_controller->isPaused();
        bool rolling = m_controller->phase() == RecordingController::Phase::rolling;
        onGui([this, paused, rolling] {
            if (rolling && isRolling())
                setState(paused ? State::paused : State::rolling);
        });
    });
}

void RecordingDriver::mark()
{
    onWorker([this] {
        m_controller->mark();
        int count = m_controller->markCount();
        onGui([this, count] {
            m_markCount = count;
            emit marksChanged(count);
        });
    });
}

void RecordingDriver::replim()
{
    onWorker([this] { reportStart(m_controller->replim()); });
}

} // namespace plim
