#pragma once
// Blur boxes on the editor's preview: the boxes showing at the playhead, outlined where the
// preview shows them, moved by dragging inside and resized by their lower-right corner;
// once armed, a drag across the picture draws a new box there. Each drag is one undo step.
//
// Threads: GUI thread. Lies over the preview as its child, at its size.

#include <QWidget>

#include <optional>
#include <string>

namespace plim {

class PlimDocument;
class PreviewView;
struct MaskRegion;

class BlurOverlay : public QWidget {
    Q_OBJECT
public:
    // `sourceWidth` × `sourceHeight`: the recording's picture in pixels.
    BlurOverlay(PreviewView& preview, PlimDocument& document, double sourceWidth, double sourceHeight);

    // The boxes shown are those of this movie time.
    void setSourceTime(double t);
    // The next drag draws a new box.
    void armDrawing(bool armed);
    bool isArmed() const { return m_armed; }
    void setReadOnly(bool readOnly);
    // Where the box shows in the preview; nothing while no frame is shown.
    std::optional<QRectF> boxOf(const MaskRegion& mask) const;

signals:
    void drawn(); // a new box was drawn (or the drawing was given up)
    void blurSelected(const QString& id);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    // The point as fractions of the recorded picture; nothing off the picture.
    std::optional<QPointF> fractionAt(QPointF widgetPoint) const;

    enum class Drag { none, draw, move, resize };
    PreviewView& m_preview;
    PlimDocument& m_document;
    double m_sourceWidth;
    double m_sourceHeight;
    double m_time = 0;
    bool m_armed = false;
    bool m_readOnly = false;
    Drag m_drag = Drag::none;
    std::string m_id;
    QPointF m_pressFraction;
    QPointF m_grab;   // fraction from the box's corner to the press
    bool m_inGesture = false;
};

} // namespace plim
