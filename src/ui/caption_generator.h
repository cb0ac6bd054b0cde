#pragma once
// The editor's Generate captions: one transcription pass of a plim on a worker thread,
// through the caption engine router, with its progress, result and notice handed back to
// the GUI thread as signals. Destroying it stops a pass under way and waits for its thread.
//
// Threads: start() and the signals on the GUI thread; the pass on its own thread.

#include "captions/caption_engine_router.h"

#include <QObject>
#include <QString>

#include <filesystem>
#include <string>
#include <thread>

namespace plim {

// The language captions are made in: the system locale's ("en_US").
std::string captionLanguage();

class CaptionGenerator : public QObject {
    Q_OBJECT
public:
    explicit CaptionGenerator(CaptionEngineRouter::Parts parts, QObject* parent = nullptr);
    ~CaptionGenerator() override;

    // Starts a pass over the movie of `duration` seconds; false while one is running.
    bool start(const std::filesystem::path& movie, double duration);
    bool isRunning() const { return m_running; }

signals:
    void progress(const QString& line);
    // The pass's track, written nowhere yet, and the router's notice (empty when none).
    void finished(const plim::CaptionTrack& track, const QString& notice);
    void failed(const QString& sentence);

private:
    CaptionEngineRouter m_router;
    bool m_running = false;
    std::jthread m_worker;
};

} // namespace plim
