#include "ui/area_picker.h"

#include "ui/desktop_services.h"

#include <QGuiApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPixmap>
#include <QScreen>
#include <QWidget>

#include <array>
#include <cmath>

namespace plim {

namespace {

constexpr int handleSize = 9;
const QColor accent(0x3d, 0x8b, 0xfd);

// The eight handles of an area, corners first (top-left, top-right, bottom-right,
// bottom-left), then the middles of the top, right, bottom and left edges.
std::array<QPoint, 8> handlePoints(const QRect& r)
{
    const int l = r.left(), t = r.top(), rt = r.x() + r.width(), b = r.y() + r.height();
    const int mx = r.x() + r.width() / 2, my = r.y() + r.height() / 2;
    return {QPoint(l, t), QPoint(rt, t), QPoint(rt, b), QPoint(l, b), QPoint(mx, t), QPoint(rt, my), QPoint(mx, b),
        QPoint(l, my)};
}

} // namespace

// One display's overlay: its snapshot, dimmed outside the area.
class AreaPickerOverlay final : public QWidget {
public:
    AreaPickerOverlay(AreaPicker& picker, QScreen* screen)
        : QWidget(nullptr, Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::X11BypassWindowManagerHint),
          m_picker(picker), m_screen(screen), m_snapshot(screen->grabWindow(0))
    {
        setObjectName(QStringLiteral("areaPicker"));
        setWindowTitle(QStringLiteral("Plim area picker"));
        setAttribute(Qt::WA_NoSystemBackground);
        setCursor(Qt::CrossCursor);
        setMouseTracking(true);
        setFocusPolicy(Qt::StrongFocus);
        setScreen(screen);
        setGeometry(screen->geometry());
    }

    QScreen* screen() const { return m_screen; }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter p(this);
        p.drawPixmap(rect(), m_snapshot);
        const QRect area = m_picker.selection().translated(-geometry().topLeft());
        QRegion dim(rect());
        if (!area.isEmpty())
            dim -= QRegion(area);
        p.setClipRegion(dim);
        p.fillRect(rect(), QColor(0, 0, 0, 120));
        p.setClipping(false);
        if (area.isEmpty()) {
            hint(p, QStringLiteral("Drag over the area to record  ·  Enter or a double click records it  ·  Esc cancels"),
                QPoint(width() / 2, 48));
            return;
        }
        p.setRenderHint(QPainter::Antialiasing, false);
        p.setPen(QPen(Qt::white, 1));
        p.setBrush(Qt::NoBrush);
        p.drawRect(area.adjusted(-1, -1, 0, 0));
        p.setPen(QPen(accent, 1, Qt::DashLine));
        p.drawRect(area.adjusted(-1, -1, 0, 0));
        p.setRenderHint(QPainter::Antialiasing, true);
        p.setPen(QPen(accent, 1.5));
        p.setBrush(Qt::white);
        for (const QPoint& h : handlePoints(area))
            p.drawEllipse(QPointF(h), handleSize / 2.0, handleSize / 2.0);
        const QRect global = m_picker.selection();
        const qreal dpr = m_screen->devicePixelRatio();
        const QString size = QStringLiteral("%1 × %2").arg(std::lround(global.width() * dpr)).arg(std::lround(global.height() * dpr));
        const bool below = area.y() + area.height() + 40 < height();
        hint(p, size, QPoint(area.x() + area.width() / 2, below ? area.y() + area.height() + 22 : area.y() - 22));
    }

    void mousePressEvent(QMouseEvent* event) override
    {
        if (event->button() != Qt::LeftButton)
            return;
        const QPoint g = event->globalPosition().toPoint();
        const QRect area = m_picker.selection();
        m_handle = -1;
        if (!area.isEmpty()) {
            const auto handles = handlePoints(area);
            for (int i = 0; i < 8; ++i)
                if ((handles[size_t(i)] - g).manhattanLength() <= handleSize)
                    m_handle = i;
        }
        m_start = area;
        m_anchor = g;
        m_mode = m_handle >= 0 ? Mode::resize : (!area.isEmpty() && area.contains(g)) ? Mode::move : Mode::draw;
        if (m_mode == Mode::draw)
            m_picker.setSelection(QRect(g, QSize(0, 0)));
    }

    void mouseMoveEvent(QMouseEvent* event) override
    {
        const QPoint g = event->globalPosition().toPoint();
        if (!(event->buttons() & Qt::LeftButton) || m_mode == Mode::none) {
            updateCursor(g);
            return;
        }
        const QPoint d = g - m_anchor;
        switch (m_mode) {
        case Mode::draw:
            m_picker.setSelection(span(m_anchor, g));
            break;
        case Mode::move: {
            QRect moved = m_start.translated(d);
            const QRect bounds = m_picker.m_bounds;
            moved.moveLeft(std::clamp(moved.x(), bounds.x(), bounds.x() + bounds.width() - moved.width()));
            moved.moveTop(std::clamp(moved.y(), bounds.y(), bounds.y() + bounds.height() - moved.height()));
            m_picker.setSelection(moved);
            break;
        }
        case Mode::resize: {
            int l = m_start.x(), t = m_start.y(), r = m_start.x() + m_start.width(), b = m_start.y() + m_start.height();
            const int h = m_handle;
            if (h == 0 || h == 3 || h == 7)
                l += d.x();
            if (h == 1 || h == 2 || h == 5)
                r += d.x();
            if (h == 0 || h == 1 || h == 4)
                t += d.y();
            if (h == 2 || h == 3 || h == 6)
                b += d.y();
            m_picker.setSelection(span(QPoint(l, t), QPoint(r, b)));
            break;
        }
        case Mode::none:
            break;
        }
    }

    void mouseDoubleClickEvent(QMouseEvent* event) override
    {
        if (event->button() == Qt::LeftButton && m_picker.selection().contains(event->globalPosition().toPoint()))
            m_picker.accept();
    }

    void mouseReleaseEvent(QMouseEvent* event) override
    {
        if (event->button() == Qt::LeftButton)
            m_mode = Mode::none;
    }

    void keyPressEvent(QKeyEvent* event) override
    {
        switch (event->key()) {
        case Qt::Key_Escape:
            m_picker.cancel();
            return;
        case Qt::Key_Return:
        case Qt::Key_Enter:
            m_picker.accept();
            return;
        case Qt::Key_Left:
        case Qt::Key_Right:
        case Qt::Key_Up:
        case Qt::Key_Down: {
            // Arrows nudge the area by a pixel, ten with Shift; with Alt they grow or shrink it.
            const int step = event->modifiers() & Qt::ShiftModifier ? 10 : 1;
            const int dx = event->key() == Qt::Key_Left ? -step : event->key() == Qt::Key_Right ? step : 0;
            const int dy = event->key() == Qt::Key_Up ? -step : event->key() == Qt::Key_Down ? step : 0;
            QRect area = m_picker.selection();
            if (area.isEmpty())
                return;
            if (event->modifiers() & Qt::AltModifier)
                area.setSize(QSize(std::max(AreaPicker::smallestSide, area.width() + dx), std::max(AreaPicker::smallestSide, area.height() + dy)));
            else
                area.translate(dx, dy);
            if (m_picker.m_bounds.contains(area))
                m_picker.setSelection(area);
            return;
        }
        default:
            QWidget::keyPressEvent(event);
        }
    }

private:
    enum class Mode { none, draw, move, resize };

    // The rectangle between two corners, as many pixels wide as they lie apart.
    static QRect span(QPoint a, QPoint b)
    {
        return QRect(QPoint(std::min(a.x(), b.x()), std::min(a.y(), b.y())), QSize(std::abs(a.x() - b.x()), std::abs(a.y() - b.y())));
    }

    void updateCursor(QPoint g)
    {
        const QRect area = m_picker.selection();
        Qt::CursorShape shape = Qt::CrossCursor;
        if (!area.isEmpty()) {
            const auto handles = handlePoints(area);
            constexpr std::array shapes = {Qt::SizeFDiagCursor, Qt::SizeBDiagCursor, Qt::SizeFDiagCursor, Qt::SizeBDiagCursor,
                Qt::SizeVerCursor, Qt::SizeHorCursor, Qt::SizeVerCursor, Qt::SizeHorCursor};
            for (size_t i = 0; i < 8; ++i)
                if ((handles[i] - g).manhattanLength() <= handleSize)
                    shape = shapes[i];
            if (shape == Qt::CrossCursor && area.contains(g))
                shape = Qt::SizeAllCursor;
        }
        setCursor(shape);
    }

    // A line of text in a dark rounded box centred on `at`.
    void hint(QPainter& p, const QString& text, QPoint at)
    {
        QFont font = p.font();
        font.setBold(true);
        p.setFont(font);
        const QFontMetrics metrics(font);
        QRect box(0, 0, metrics.horizontalAdvance(text) + 20, metrics.height() + 10);
        box.moveCenter(at);
        box.moveLeft(std::clamp(box.x(), 4, std::max(4, width() - box.width() - 4)));
        box.moveTop(std::clamp(box.y(), 4, std::max(4, height() - box.height() - 4)));
        p.setRenderHint(QPainter::Antialiasing, true);
        p.setPen(Qt::NoPen);
        p.setBrush(QColor(20, 20, 24, 210));
        p.drawRoundedRect(box, 6, 6);
        p.setPen(Qt::white);
        p.drawText(box, Qt::AlignCenter, text);
    }

    AreaPicker& m_picker;
    QScreen* m_screen;
    QPixmap m_snapshot;
    Mode m_mode = Mode::none;
    int m_handle = -1;
    QPoint m_anchor;
    QRect m_start;
};

AreaPicker::AreaPicker(std::optional<Rect> last, QObject* parent) : QObject(parent)
{
    for (QScreen* screen : QGuiApplication::screens())
        m_bounds |= screen->geometry();
    if (last && last->width >= smallestSide && last->height >= smallestSide) {
        const QRect area = toWindowRect(*last);
        if (m_bounds.contains(area))
            m_selection = area;
    }
}

AreaPicker::~AreaPicker() = default;

void AreaPicker::show()
{
    // Every snapshot is taken before any overlay covers a display.
    for (QScreen* screen : QGuiApplication::screens())
        m_overlays.push_back(std::make_unique<AreaPickerOverlay>(*this, screen));
    for (auto& overlay : m_overlays)
        overlay->show();
    QScreen* primary = QGuiApplication::primaryScreen();
    for (auto& overlay : m_overlays)
        if (overlay->screen() == primary || m_overlays.size() == 1) {
            overlay->raise();
            overlay->activateWindow();
            overlay->setFocus();
            overlay->grabKeyboard();
        }
}

std::vector<QWidget*> AreaPicker::overlays() const
{
    std::vector<QWidget*> out;
    for (const auto& overlay : m_overlays)
        out.push_back(overlay.get());
    return out;
}

void AreaPicker::setSelection(const QRect& area)
{
    m_selection = area.intersected(m_bounds);
    if (area.width() == 0 || area.height() == 0)
        m_selection = QRect(area.topLeft(), QSize(0, 0));
    for (auto& overlay : m_overlays)
        overlay->update();
}

void AreaPicker::accept()
{
    if (m_selection.width() < smallestSide || m_selection.height() < smallestSide)
        return;
    // Qt's coordinates to the display's pixels.
    QScreen* screen = QGuiApplication::screenAt(m_selection.center());
    const qreal dpr = screen ? screen->devicePixelRatio() : 1.0;
    finish(Rect{std::round(m_selection.x() * dpr), std::round(m_selection.y() * dpr), std::round(m_selection.width() * dpr),
        std::round(m_selection.height() * dpr)});
}

void AreaPicker::cancel() { finish(std::nullopt); }

void AreaPicker::finish(std::optional<Rect> area)
{
    if (m_done)
        return;
    m_done = true;
    // The overlays go once the event that ended the pick is done with them; the callback
    // may delete the picker.
    for (auto& overlay : m_overlays) {
        overlay->releaseKeyboard();
        overlay->hide();
        overlay.release()->deleteLater();
    }
    m_overlays.clear();
    if (auto callback = onPicked)
        callback(area);
}

} // namespace plim
