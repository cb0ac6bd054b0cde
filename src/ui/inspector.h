#pragma once
// The editor's inspector: the plim's look (layout, backdrop, padding, corners, shadow), the
// pointer, the selected zoom block (style and level) and zoom blur, the camera bubble (on,
// corner, shape, size), the keycaps, captions, dead air, and the saved looks. Every change
// is one document change; a slider's drag is one undo step.
//
// Threads: GUI thread.

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

class Inspector : public QWidget {
    Q_OBJECT
public:
    Inspector(PlimDocument& document, LookStore& looks, QWidget* parent = nullptr);

    // Shows the document's values again (after an edit, undo or redo).
    void refresh();
    // The zoom block the zoom section edits; nothing hides its block controls.
    void setSelectedZoom(std::optional<std::string> id);
    void setReadOnly(bool readOnly);

    // A sentence to show (a refused shape, a look that could not be saved).
    std::function<void(const QString&)> onNotice;
    // The Generate captions button was pressed.
    std::function<void()> onGenerateCaptions;
    // Enables Generate captions and says what it is doing ("Transcribing 42% ...").
    void setCaptionsBusy(bool busy);

private:
    QWidget* section(const QString& title, QWidget* body);
    QSlider* slider(int minimum, int maximum, const std::function<void(int)>& changed);
    QCheckBox* check(const QString& text, const std::function<void(bool)>& changed);
    void refreshLooks();

    PlimDocument& m_document;
    LookStore& m_looks;
    std::optional<std::string> m_zoom;
    bool m_refreshing = false;

    QButtonGroup* m_shape = nullptr;
    QButtonGroup* m_backdrop = nullptr;
    QSlider* m_padding = nullptr;
    QSlider* m_corners = nullptr;
    QSlider* m_shadow = nullptr;
    QCheckBox* m_glide = nullptr;
    QPushButton* m_generateCaptions = nullptr;
    QCheckBox* m_clickRings = nullptr;
    QCheckBox* m_spotlight = nullptr;
    QWidget* m_zoomBlock = nullptr;
    QComboBox* m_zoomStyle = nullptr;
    QSlider* m_zoomLevel = nullptr;
    QLabel* m_zoomLevelText = nullptr;
    QLabel* m_zoomHint = nullptr;
    QCheckBox* m_zoomBlur = nullptr;
    QCheckBox* m_bubble = nullptr;
    QButtonGroup* m_bubbleCorner = nullptr;
    QButtonGroup* m_bubbleShape = nullptr;
    QSlider* m_bubbleSize = nullptr;
    QCheckBox* m_keys = nullptr;
    QCheckBox* m_captions = nullptr;
    QCheckBox* m_deadAir = nullptr;
    QComboBox* m_savedLooks = nullptr;
    QPushButton* m_applyLook = nullptr;
    QLineEdit* m_lookName = nullptr;
    QPushButton* m_saveLook = nullptr;
    std::vector<QWidget*> m_editing; // disabled when read-only
};

} // namespace plim
