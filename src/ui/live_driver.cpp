#include "ui/live_driver.h"

#include "base/log.h"

#include <QTimer>

namespace plim {

LiveDriver::LiveDriver(LiveServices services, CameraSinks cameras, QObject* parent)
    : QObject(parent), m_worker("live"), m_cameras(std::move(cameras))
{
    onWorker([this, services = std::move(services)] {
        m_session = std::make_unique<LiveSession>(services);
        // Ticks only while live, so an idle Plim stays asleep.
        m_ticker = new QTimer(m_worker.context());
        m_ticker->setInterval(int(LiveSession::healthInterval * 1000));
        QObject::connect(m_ticker, &QTimer::timeout, m_worker.context(), [this] { checkOnWorker(); });
    });
}

LiveDriver::~LiveDriver()
{
    m_worker.finish([this] {
        stopOnWorker();
        m_session.reset();
    });
}

void LiveDriver::setState(State state)
{
    if (state == m_state)
        return;
    m_state = state;
    emit stateChanged(state);
}

void LiveDriver::start(LiveSessionOptions options)
{
    if (m_state != State::idle)
        return;
    setState(State::starting);
    std::vector<std::shared_ptr<LiveSink>> sinks{m_monitor};
    onWorker([this, options = std::move(options), sinks]() mutable {
        options.progress = [this](const std::string& text) {
            onGui([this, text] { emit progress(QString::fromStdString(text)); });
        };
        for (auto& camera : m_cameras ? m_cameras() : std::vector<std::shared_ptr<LiveSink>>{})
            sinks.push_back(std::move(camera));
        Status live = m_session->goLive(std::move(options), std::move(sinks));
        if (!live) {
            std::string sentence = live.error().sentence;
            logLine(LogArea::live, sentence);
            onGui([this, sentence] {
                setState(State::idle);
                emit failed(QString::fromStdString(sentence));
            });
            return;
        }
        std::vector<std::string> notices = m_session->notices();
        m_ticker->start();
        onGui([this, notices] {
            setState(State::live);
            for (const auto& sentence : notices)
                emit notice(QString::fromStdString(sentence));
        });
    });
}

void LiveDriver::checkOnWorker()
{
    if (!m_session->isLive())
        return;
    LiveHealthReport report = m_session->refreshHealth();
    QString line = QString::fromStdString(report.line);
    QString note = QString::fromStdString(report.note.value_or(""));
    std::optional<std::string> ended = report.ended;
    if (ended) {
        logLine(LogArea::live, *ended);
        stopOnWorker();
    }
    onGui([this, line, note, ended] {
        emit health(line, note);
        if (ended) {
            setState(State::idle);
            emit failed(QString::fromStdString(*ended));
        }
    });
}

void LiveDriver::stopOnWorker()
{
    if (m_ticker)
        m_ticker->stop();
    if (m_session)
        m_session->stop();
}

void LiveDriver::stop()
{
    if (m_state == State::idle)
        return;
    onWorker([this] {
        stopOnWorker();
        onGui([this] { setState(State::idle); });
    });
}

void LiveDriver::stopNow()
{
    onWorker([this] { stopOnWorker(); }, true);
    setState(State::idle);
}

} // namespace plim
