#pragma once
// The share sheet of one plim: the kind (MP4, GIF, the original), the quality with the size
// it makes and the enlargement note, where the file goes (a folder, by default the last one
// used or the videos folder, or the clipboard), then the share's checklist with its bar and
// time left, Stop, and the outcome with Open and Show in Folder.
//
// Threads: construct, call and destroy on the GUI thread. The plim is read for its size on a
// worker; the share runs on a worker thread of the sheet's own and its progress hops here.
// Closing the sheet stops a running share and waits for it to end (nothing is saved then).

#include "share/share_engine.h"

#include <QWidget>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

class QButtonGroup;
class QLabel;
class QProgressBar;
class QPushButton;
class QRadioButton;
class QVBoxLayout;

namespace plim {

class SettingsStore;
struct SharePlim;

class ShareSheet : public QWidget {
    Q_OBJECT
public:
    static constexpr const char* folderKey = "shareFolder";

    ShareSheet(std::filesystem::path movie, SettingsStore& settings,
        ShareEngine::Environment environment = ShareEngine::Environment::desktop(), QWidget* parent = nullptr);
    ~ShareSheet() override;

    // Called on the GUI thread when a share has ended.
    std::function<void(const ShareOutcome&)> onFinished;

    void setKind(ShareKind kind);
    void setQuality(ShareQuality quality);
    // Saves into this folder (remembered for the next share) instead of the clipboard.
    void setFolder(const std::filesystem::path& folder);
    void setCopy();
    ShareKind kind() const { return m_kind; }
    ShareQuality quality() const { return m_quality; }

    void start();
    void stop();
    bool isRunning() const { return m_thread.joinable() && !m_outcome; }
    const std::optional<ShareOutcome>& outcome() const { return m_outcome; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void refreshChoices();
    void apply(const ShareProgress& progress);
    void finished(const ShareOutcome& outcome);
    void chooseFolder();
    void fitHeight();

    std::filesystem::path m_movie;
    SettingsStore& m_settings;
    ShareKind m_kind = ShareKind::video;
    ShareQuality m_quality = ShareQuality::p1080;
    std::filesystem::path m_folder;
    bool m_copy = false;
    std::shared_ptr<const SharePlim> m_plim; // read on the worker; null until then

    std::unique_ptr<ShareEngine> m_engine;
    std::thread m_reader;
    std::thread m_thread;
    std::optional<ShareOutcome> m_outcome;

    QButtonGroup* m_kinds = nullptr;
    QButtonGroup* m_qualities = nullptr;
    QLabel* m_format = nullptr;
    QLabel* m_note = nullptr;
    QRadioButton* m_saveChoice = nullptr;
    QRadioButton* m_copyChoice = nullptr;
    QPushButton* m_folderButton = nullptr;
    QWidget* m_choices = nullptr;
    QWidget* m_checklist = nullptr;
    QVBoxLayout* m_stageRows = nullptr;
    QProgressBar* m_bar = nullptr;
    QLabel* m_footline = nullptr;
    QLabel* m_outcomeText = nullptr;
    QPushButton* m_share = nullptr;
    QPushButton* m_stop = nullptr;
    QPushButton* m_open = nullptr;
    QPushButton* m_show = nullptr;
};

} // namespace plim
