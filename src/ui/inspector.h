#pragma once
// The editor's inspector: the plim's look (layout, backdrop: gradient, colour, picture,
// wallpaper or the stage look's own; padding, corners, shadow), the pointer (size, smoothing, resting, spotlight,
// click style and tint), the zoom (new zooms' style and level, the selected block's, zoom
// blur), the camera bubble (on, corner, shape, size), the keycaps, captions and their look,
// dead air, and the saved looks. Every change is one document change; a slider's drag is
// one undo step. The look's controls are bound through small tables, one refresh for all.
// A choice the plim's look leaves open shows what its staging wears there (the stage look
// beside the movie, else the defaults), not a default of its own; a plim without a look
// shows the document's seed, the stage look as a look.
//
// Threads: GUI thread.

#include "stage/stage_spec.h"

#include <QIcon>
#include <QWidget>

#include <functional>
#include <optional>
#include <string>
#include <vector>

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSlider;

namespace plim {

class LookStore;
class PlimDocument;
struct PlimLook;

class Inspector : public QWidget {
    Q_OBJECT
public:
    Inspector(PlimDocument& document, LookStore& looks, QWidget* parent = nullptr);

    // Shows the document's values again (after an edit, undo or redo).
    void refresh();
    // The zoom block the zoom section edits; nothing hides its block controls.
    void setSelectedZoom(std::optional<std::string> id);
    void setReadOnly(bool readOnly);
    // The stage look the plim's look is worn over, once known.
    void setStageBase(const StageSpec& base);

    // A sentence to show (a refused shape, a look that could not be saved).
    std::function<void(const QString&)> onNotice;
    // The Generate captions button was pressed.
    std::function<void()> onGenerateCaptions;
    // Enables Generate captions and says what it is doing ("Transcribing 42% ...").
    void setCaptionsBusy(bool busy);

private:
    // One choice among buttons: its text (or icon), its tooltip and object name.
    struct Option {
        QString text;
        QString name;
        QIcon icon = {};
    };
    using LookChange = std::function<void(PlimLook&)>;

    QWidget* section(const QString& title, QWidget* body);
    QSlider* slider(int minimum, int maximum, const std::function<void(int)>& changed);
    QCheckBox* check(const QString& text, const std::function<void(bool)>& changed);
    // Controls showing one value of the look, set again by refresh().
    QCheckBox* lookSwitch(const QString& text, std::function<bool(const PlimLook&)> get,
        std::function<void(PlimLook&, bool)> set);
    QSlider* lookSlider(const QString& name, int minimum, int maximum, std::function<int(const PlimLook&)> get,
        std::function<void(PlimLook&, int)> set);
    // Buttons whose ids are the options' indexes; `chosen` gets the index clicked.
    QWidget* lookChoice(const QString& label, const std::vector<Option>& options,
        std::function<int(const PlimLook&)> get, std::function<void(int)> chosen, int columns = 0);
    void changeLook(const LookChange& change);
    void chooseBackdrop(int backdrop);
    void refreshLooks();
    // The plim's look with each choice it leaves open filled in as its staging wears it.
    PlimLook shownLook() const;

    PlimDocument& m_document;
    LookStore& m_looks;
    std::optional<std::string> m_zoom;
    std::optional<StageSpec> m_stageBase;
    bool m_refreshing = false;

    std::vector<std::pair<QCheckBox*, std::function<bool(const PlimLook&)>>> m_switches;
    std::vector<std::pair<QSlider*, std::function<int(const PlimLook&)>>> m_sliders;
    std::vector<std::pair<QButtonGroup*, std::function<int(const PlimLook&)>>> m_choices;
    QPushButton* m_generateCaptions = nullptr;
    QWidget* m_zoomBlock = nullptr;
    QComboBox* m_zoomStyle = nullptr;
    QSlider* m_zoomLevel = nullptr;
    QLabel* m_zoomLevelText = nullptr;
    QLabel* m_zoomHint = nullptr;
    QComboBox* m_newZoomStyle = nullptr;
    QButtonGroup* m_bubbleShape = nullptr;
    QSlider* m_bubbleSize = nullptr;
    QComboBox* m_savedLooks = nullptr;
    QPushButton* m_applyLook = nullptr;
    QLineEdit* m_lookName = nullptr;
    QPushButton* m_saveLook = nullptr;
    std::vector<QWidget*> m_editing; // disabled when read-only
};

} // namespace plim
