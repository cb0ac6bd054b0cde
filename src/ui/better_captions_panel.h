#pragma once
// The settings pane's better captions: the switch, the size, and the Whisper model's
// download with its progress, pause and delete. The download runs on a worker thread of
// the panel's own; its progress hops back to the GUI thread. A download paused from
// `plimctl captions-model pause` shows as paused here too.
//
// Threads: construct, call and destroy on the GUI thread. Destroying the panel pauses a
// running download and waits for the worker.

#include "captions/caption_model_downloader.h"

#include <QWidget>

#include <functional>
#include <thread>

class QCheckBox;
class QComboBox;
class QLabel;
class QProgressBar;
class QPushButton;

namespace plim {

class SettingsStore;

class BetterCaptionsPanel : public QWidget {
    Q_OBJECT
public:
    struct Setup {
        CaptionModelStore store = CaptionModelStore::standard();
        CaptionModelHosts hosts = CaptionModelHosts::fromEnvironment();
        std::function<CaptionModelServices()> services;
        // The sizes offered; unset: Plim's own.
        std::vector<CaptionModelSize> sizes;
    };
    BetterCaptionsPanel(SettingsStore& settings, Setup setup, QWidget* parent = nullptr);
    ~BetterCaptionsPanel() override;

    bool isDownloading() const { return m_worker.joinable(); }

private:
    CaptionModelSize chosenSize() const;
    void startDownload();
    void pauseDownload();
    void deleteModel();
    void showProgress(const CaptionModelProgress& progress);
    void downloadEnded(const Outcome<fs::path>& outcome);
    void refresh(const QString& sentence = {});

    SettingsStore& m_settings;
    Setup m_setup;
    std::jthread m_worker;
    QCheckBox* m_switch = nullptr;
    QComboBox* m_size = nullptr;
    QLabel* m_text = nullptr;
    QProgressBar* m_bar = nullptr;
    QLabel* m_status = nullptr;
    QPushButton* m_download = nullptr;
    QPushButton* m_pause = nullptr;
    QPushButton* m_delete = nullptr;
};

} // namespace plim
