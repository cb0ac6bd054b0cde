#include "ui/editor_blur_overlay.h"

#include "library/plim_document.h"
#include "ui/preview_view.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

namespace plim {

namespace {
constexpr double cornerReach = 9; // pixels around a box's lower-right corner that resize it
const QColor boxColour(0x2c, 0xb5, 0xa6);
} // namespace

BlurOverlay::BlurOverlay(PreviewView& preview, PlimDocument& document, double sourceWidth, double sourceHeight)
    : QWidget(&preview), m_preview(preview), m_document(document), m_sourceWidth(std::max(1.0, sourceWidth)),
      m_sourceHeight(std::max(1.0, sourceHeight))
{
    setObjectName("blurOverlay");
    setAttribute(Qt::WA_TranslucentBackground);
    setMouseTracking(true);
    setGeometry(preview.rect());
    preview.installEventFilter(this);
    show();
}

bool BlurOverlay::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == &m_preview && event->type() == QEvent::Resize)
        setGeometry(m_preview.rect());
    return QWidget::eventFilter(watched, event);
}

void BlurOverlay::setSourceTime(double t)
{
    if (std::isfinite(t) && t != m_time) {
        m_time = t;
        update();
    }
}

void BlurOverlay::armDrawing(bool armed)
{
    m_armed = armed && !m_readOnly;
    setCursor(m_armed ? Qt::CrossCursor : Qt::ArrowCursor);
}

void BlurOverlay::setReadOnly(bool readOnly)
{
    m_readOnly = readOnly;
    if (readOnly)
        armDrawing(false);
}

std::optional<QRectF> BlurOverlay::boxOf(const MaskRegion& mask) const
{
    auto topLeft = m_preview.widgetPointOf(QPointF(mask.x * m_sourceWidth, mask.y * m_sourceHeight));
    auto bottomRight = m_preview.widgetPointOf(QPointF((mask.x + mask.w) * m_sourceWidth, (mask.y + mask.h) * m_sourceHeight));
    if (!topLeft || !bottomRight) {
        // A box hanging off the picture: place it by its clipped part.
        const Rect r = mask.rect();
        topLeft = m_preview.widgetPointOf(QPointF(r.x * m_sourceWidth, r.y * m_sourceHeight));
        bottomRight = m_preview.widgetPointOf(QPointF((r.x + r.width) * m_sourceWidth, (r.y + r.height) * m_sourceHeight));
    }
    if (!topLeft || !bottomRight)
        return std::nullopt;
    return QRectF(*topLeft, *bottomRight).normalized();
}

std::optional<QPointF> BlurOverlay::fractionAt(QPointF widgetPoint) const
{
    auto source = m_preview.sourcePointOf(widgetPoint);
    if (!source)
        return std::nullopt;
    return QPointF(source->x() / m_sourceWidth, source->y() / m_sourceHeight);
}

void BlurOverlay::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    for (const MaskRegion& mask : m_document.edits().plan.masksAt(m_time)) {
        auto box = boxOf(mask);
        if (!box)
            continue;
        const bool selected = mask.id == m_id;
        p.setPen(QPen(selected ? QColor(Qt::white) : boxColour, selected ? 2 : 1.5, Qt::DashLine));
        p.setBrush(Qt::NoBrush);
        p.drawRoundedRect(*box, 3, 3);
        if (!m_readOnly) {
            p.setPen(Qt::NoPen);
            p.setBrush(selected ? QColor(Qt::white) : boxColour);
            p.drawEllipse(box->bottomRight(), 4.5, 4.5);
        }
    }
}

void BlurOverlay::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || m_readOnly)
        return;
    const QPointF at = event->position();
    auto fraction = fractionAt(at);
    if (m_armed) {
        if (!fraction)
            return;
        m_drag = Drag::draw;
        m_pressFraction = *fraction;
        m_id.clear();
        return;
    }
    // The topmost box under the press: its corner resizes, its inside moves.
    const auto masks = m_document.edits().plan.masksAt(m_time);
    for (auto mask = masks.rbegin(); mask != masks.rend(); ++mask) {
        auto box = boxOf(*mask);
        if (!box)
            continue;
        const QPointF corner = box->bottomRight();
        const bool onCorner = std::hypot(at.x() - corner.x(), at.y() - corner.y()) <= cornerReach;
        if (!onCorner && !box->contains(at))
            continue;
        m_id = mask->id;
        m_drag = onCorner ? Drag::resize : Drag::move;
        m_grab = fraction ? *fraction - QPointF(mask->x, mask->y) : QPointF(mask->w / 2, mask->h / 2);
        emit blurSelected(QString::fromStdString(m_id));
        update();
        return;
    }
    m_id.clear();
    update();
}

void BlurOverlay::mouseMoveEvent(QMouseEvent* event)
{
    if (m_drag == Drag::none)
        return;
    auto fraction = fractionAt(event->position());
    if (!fraction)
        return;
    if (!m_inGesture) {
        m_document.beginGesture();
        m_inGesture = true;
        if (m_drag == Drag::draw) {
            auto id = m_document.addBlur(m_time);
            if (!id) {
                m_drag = Drag::none;
                return;
            }
            m_id = *id;
            // As small as a box gets, so placing it is not held back by its first size.
            m_document.resizeBlur(m_id, 0, 0);
        }
    }
    switch (m_drag) {
    case Drag::draw: {
        const QRectF box = QRectF(m_pressFraction, *fraction).normalized();
        m_document.moveBlur(m_id, box.x(), box.y());
        m_document.resizeBlur(m_id, box.width(), box.height());
        break;
    }
    case Drag::move: {
        const QPointF corner = *fraction - m_grab;
        m_document.moveBlur(m_id, corner.x(), corner.y());
        break;
    }
    case Drag::resize: {
        const auto& masks = m_document.edits().plan.masks;
        auto mask = std::find_if(masks.begin(), masks.end(), [&](const MaskRegion& m) { return m.id == m_id; });
        if (mask != masks.end())
            m_document.resizeBlur(m_id, fraction->x() - mask->x, fraction->y() - mask->y);
        break;
    }
    case Drag::none: break;
    }
    update();
}

void BlurOverlay::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || m_drag == Drag::none)
        return;
    const bool drew = m_drag == Drag::draw;
    m_drag = Drag::none;
    if (m_inGesture) {
        m_document.endGesture();
        m_inGesture = false;
    }
    if (drew) {
        armDrawing(false);
        if (!m_id.empty())
            emit blurSelected(QString::fromStdString(m_id));
        emit drawn();
    }
    update();
}

} // namespace plim
