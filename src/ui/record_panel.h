#pragma once
// The record panel: what to record (a display, shown with a thumbnail; a window, by its
// title; an area, through the area picker), the inputs (microphone with its device and a
// live level, the computer's sound, camera with its device, the keys pressed), quality,
// frame rate and countdown. It opens on the last choice and keeps the new one when the
// user records; what would keep a recording from starting is shown with its fix.
//
// Threads: construct, call and destroy on the GUI thread. The microphone's level comes
// from a sound source of its own while the panel is shown with the microphone on; its
// blocks arrive on the source's thread and are only read from a timer here. The camera's
// preview works the same way: pictures are made small on the camera's thread and the
// latest one is shown from a timer. The displays' thumbnails are taken and scaled on the
// global thread pool, so the panel shows at once with the last ones it had.

#include "app/record_choice.h"
#include "capture/camera_source.h"
#include "capture/capture_session.h"

#include <QWidget>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QLabel;
class QListWidget;
class QProgressBar;
class QPushButton;
class QSpinBox;
class QTimer;

namespace plim {

class Desktop;
class SettingsStore;
class SoundSource;

class RecordPanel : public QWidget {
    Q_OBJECT
public:
    RecordPanel(SettingsStore& settings, std::filesystem::path libraryFolder, QWidget* parent = nullptr);
    ~RecordPanel() override;

    std::function<void(const CaptureSettings& settings, int countdownSeconds)> onRecord;
    std::function<void()> onPickArea;
    // Opens the camera for its preview; Video4Linux2 unless a test gives its own.
    std::function<Result<std::unique_ptr<CameraSource>>(const std::optional<std::string>& device)> openCamera =
        [](const std::optional<std::string>& device) { return createV4l2CameraSource(device); };

    // The area the picker returned: the subject becomes that area.
    void setArea(const Rect& area);
    // The choice as the panel shows it now.
    RecordChoice choice() const;
    // Asks the desktop and the preflight again (displays, windows, blocking lines).
    void refresh();
    // Saves the choice and hands it to onRecord; refused (with the lines shown) while the
    // preflight blocks.
    void record();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void updateMeter();
    void listenToMicrophone(bool on);
    void watchCamera(bool on);
    void say(const QString& sentence);
    // Takes fresh pictures of the listed displays off the GUI thread; one round at a time.
    void updateThumbnails();

    SettingsStore& m_settings;
    std::filesystem::path m_folder;
    RecordChoice m_choice;
    std::shared_ptr<Desktop> m_desktop; // shared with the thumbnail round in flight
    QString m_desktopProblem;

    QButtonGroup* m_subjects = nullptr;
    QListWidget* m_displays = nullptr;
    QComboBox* m_windows = nullptr;
    QLabel* m_areaText = nullptr;
    QCheckBox* m_microphone = nullptr;
    QComboBox* m_microphoneDevice = nullptr;
    QProgressBar* m_meter = nullptr;
    QCheckBox* m_systemSound = nullptr;
    QComboBox* m_systemSoundDevice = nullptr;
    QCheckBox* m_camera = nullptr;
    QComboBox* m_cameraDevice = nullptr;
    QCheckBox* m_keys = nullptr;
    QSpinBox* m_countdown = nullptr;
    QLabel* m_preflight = nullptr;
    QLabel* m_message = nullptr;
    QPushButton* m_record = nullptr;
    QTimer* m_meterTimer = nullptr;
    QTimer* m_thumbTimer = nullptr;
    bool m_thumbsInFlight = false;
    QLabel* m_preview = nullptr;
    QTimer* m_previewTimer = nullptr;

    std::unique_ptr<SoundSource> m_listening;
    std::shared_ptr<std::atomic<float>> m_peak = std::make_shared<std::atomic<float>>(0.0f);
    std::unique_ptr<CameraSource> m_watching;
    struct LatestPicture;
    std::shared_ptr<LatestPicture> m_latest;
};

} // namespace plim
