#include "ui/caption_generator.h"

#include <QLocale>
#include <QMetaObject>
#include <QPointer>

#include <cmath>

namespace plim {

std::string captionLanguage()
{
    const std::string name = QLocale::system().name().toStdString();
    return isLanguageCode(name) ? name : "en";
}

CaptionGenerator::CaptionGenerator(CaptionEngineRouter::Parts parts, QObject* parent)
    : QObject(parent), m_router(std::move(parts))
{
}

CaptionGenerator::~CaptionGenerator()
{
    // The pass sees the stop within its grace; its last posts die with this object.
    m_worker.request_stop();
    if (m_worker.joinable())
        m_worker.join();
}

bool CaptionGenerator::start(const std::filesystem::path& movie, double duration)
{
    if (m_running)
        return false;
    if (m_worker.joinable())
        m_worker.join();
    m_running = true;
    emit progress("Transcribing…");
    m_worker = std::jthread([this, movie, duration](std::stop_token stop) {
        int lastPercent = -1;
        auto report = [this, &lastPercent](CaptionEngineKind kind, double fraction) {
            const int percent = static_cast<int>(std::floor(fraction * 100));
            if (percent == lastPercent)
                return;
            lastPercent = percent;
            const QString line = QString("Transcribing %1% (%2)")
                                     .arg(percent)
                                     .arg(kind == CaptionEngineKind::whisper ? "Whisper" : "the built-in recognizer");
            QMetaObject::invokeMethod(this, [this, line] { emit progress(line); }, Qt::QueuedConnection);
        };
        auto pass = m_router.transcribe(movie, duration, report, stop);
        QMetaObject::invokeMethod(this, [this, pass = std::move(pass)] {
            m_running = false;
            if (pass)
                emit finished(pass->track, QString::fromStdString(pass->notice.value_or("")));
            else
                emit failed(QString::fromStdString(pass.error().sentence()));
        }, Qt::QueuedConnection);
    });
    return true;
}

} // namespace plim
