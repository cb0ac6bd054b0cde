#pragma once
// The editor of one plim: the staged preview on top with its transport row, the timeline
// below, the inspector on the right, and Undo, Redo and Share. The plim's edits are read on
// a worker (a plim without usable edits starts from its automatic edit); every edit is
// saved as the user works, a moment after the last change. A plim whose edits file was
// refused or could not be read opens read only, with the sentence that says why, and its
// file is left as it is. Opened by the stop flow, it first lifts the recording's last
// frame onto its card.
//
// Threads: GUI thread; reading the plim, its pictures and its sound run on workers.

#include "library/look_store.h"

#include <QWidget>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

class QAction;
class QCheckBox;
class QLabel;
class QPushButton;
class QStackedWidget;
class QTimer;

namespace plim {

class BlurOverlay;
class CaptionGenerator;
class Inspector;
class PlimDocument;
class PreviewView;
class StagedCard;
class ThumbnailSource;
class TimelineView;
class VoiceoverRecorder;
class WaveformSource;

class EditorWindow : public QWidget {
    Q_OBJECT
public:
    struct Opening {
        std::filesystem::path movie;
        bool stagedMoment = false;         // the stop flow's lift of the last frame
        std::optional<std::string> notice; // why the recording ended early, and so on
    };
    // `share` opens the share sheet on this plim. `looks` is the saved looks file.
    EditorWindow(Opening opening, std::function<void(const std::filesystem::path&)> share,
        std::filesystem::path looks = LookStore::defaultFile(), QWidget* parent = nullptr);
    ~EditorWindow() override;

    const std::filesystem::path& movie() const { return m_movie; }
    // Null until the plim has been read.
    PlimDocument* document() const { return m_document.get(); }
    PreviewView* preview() const { return m_preview; }
    TimelineView* timeline() const { return m_timeline; }
    Inspector* inspector() const { return m_inspector; }
    BlurOverlay* blurOverlay() const { return m_overlay; }
    bool isReadOnly() const { return m_readOnly; }
    // The read-only bar's sentence, the status line.
    QString notice() const;
    QString status() const;

    // Writes pending edits now (they are otherwise written a moment after the last change).
    void saveNow();
    // Arms the preview for drawing one new blur box.
    void drawBlurBox();

    // Voiceover: narration recorded from the microphone from the playhead on while the plim
    // plays (with its sound, or picture only when headphones are off); the take lands beside
    // the movie and joins the edits where it began. Takes in progress live in the library
    // folder's Voiceovers folder (the user's library unless set).
    void setLibraryFolder(std::filesystem::path folder);
    void startVoiceover();
    // Stops and keeps the take; cancelVoiceover() drops it.
    void finishVoiceover();
    void cancelVoiceover();
    bool isRecordingVoiceover() const;

signals:
    // The plim was read and the editor can be used (or, read only, looked at).
    void documentOpened();
    void saved();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    struct Opened;
    void opened(Opened opened);
    void buildEditing();
    void documentChanged();
    void showStatus(const QString& text, bool failure = false);
    void updateTime();
    void generateCaptions();
    void voiceoverTick();

    std::filesystem::path m_movie;
    std::function<void(const std::filesystem::path&)> m_share;
    LookStore m_looks;
    std::unique_ptr<PlimDocument> m_document;
    bool m_readOnly = false;
    double m_sourceWidth = 0;
    double m_sourceHeight = 0;
    bool m_previewOpened = false;
    bool m_cardLanded = true;

    std::unique_ptr<ThumbnailSource> m_thumbnails;
    std::unique_ptr<WaveformSource> m_waveform;
    QStackedWidget* m_stage = nullptr;
    StagedCard* m_card = nullptr;
    PreviewView* m_preview = nullptr;
    BlurOverlay* m_overlay = nullptr;
    TimelineView* m_timeline = nullptr;
    Inspector* m_inspector = nullptr;
    QWidget* m_timelineSlot = nullptr;
    QWidget* m_inspectorSlot = nullptr;
    QLabel* m_readOnlyBar = nullptr;
    QLabel* m_status = nullptr;
    QLabel* m_time = nullptr;
    QPushButton* m_play = nullptr;
    QPushButton* m_raw = nullptr;
    QPushButton* m_blurButton = nullptr;
    QAction* m_undo = nullptr;
    QAction* m_redo = nullptr;
    QPushButton* m_undoButton = nullptr;
    QPushButton* m_redoButton = nullptr;
    QPushButton* m_voiceButton = nullptr;
    QCheckBox* m_headphones = nullptr;
    QTimer* m_voiceTimer = nullptr;
    std::unique_ptr<VoiceoverRecorder> m_voiceover;
    double m_voiceSourceStart = 0;
    double m_voiceOutputStart = 0;
    bool m_voicePlayed = false; // the preview has played since the take began
    std::optional<std::filesystem::path> m_libraryFolder;
    QList<QWidget*> m_editingControls; // disabled while read only or not yet open
    QTimer* m_saveTimer = nullptr;
    CaptionGenerator* m_captioner = nullptr; // a child: stopped and waited for when the window goes
};

} // namespace plim
