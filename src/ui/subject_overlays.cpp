#include "ui/subject_overlays.h"

#include "ui/desktop_services.h"

#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>

namespace plim {

namespace {

constexpr Qt::WindowFlags overlayFlags =
    Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::X11BypassWindowManagerHint;

} // namespace

CountdownOverlay::CountdownOverlay(const Rect& subject, int seconds) : QWidget(nullptr, overlayFlags), m_left(seconds)
{
    setObjectName("countdown");
    setWindowTitle("Plim countdown");
    setAttribute(Qt::WA_DeleteOnClose);
    const int side = 220;
    QRect area = toWindowRect(subject);
    setGeometry(area.center().x() - side / 2, area.center().y() - side / 2, side, side);
    QPainterPath round;
    round.addRoundedRect(QRectF(0, 0, side, side), 36, 36);
    setMask(QRegion(round.toFillPolygon().toPolygon()));
    m_tick.setInterval(1000);
    connect(&m_tick, &QTimer::timeout, this, [this] {
        if (--m_left <= 0)
            end(false);
        else
            update();
    });
}

void CountdownOverlay::begin()
{
    show();
    raise();
    activateWindow();
    grabKeyboard();
    // A window manager may map the window a moment later, and X refuses a grab on a window
    // not yet viewable: grab again once it shows.
    QTimer::singleShot(200, this, [this] {
        if (!m_ended)
            grabKeyboard();
    });
    m_tick.start();
}

void CountdownOverlay::end(bool wasCancelled)
{
    if (m_ended)
        return;
    m_ended = true;
    m_tick.stop();
    releaseKeyboard();
    hide();
    if (wasCancelled)
        emit cancelled();
    else
        emit finished();
    close();
}

void CountdownOverlay::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape)
        end(true);
    else
        QWidget::keyPressEvent(event);
}

void CountdownOverlay::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.fillRect(rect(), QColor(0x1c, 0x1c, 0x1e));
    QFont big = font();
    big.setPixelSize(120);
    big.setBold(true);
    p.setFont(big);
    p.setPen(Qt::white);
    p.drawText(rect().adjusted(0, -16, 0, -16), Qt::AlignCenter, QString::number(m_left));
    QFont small = font();
    small.setPixelSize(14);
    p.setFont(small);
    p.setPen(QColor(0xb0, 0xb0, 0xb0));
    p.drawText(rect().adjusted(0, 0, 0, -18), Qt::AlignHCenter | Qt::AlignBottom, "Esc cancels");
}

RegionOutline::RegionOutline()
{
    for (auto& edge : m_edges) {
        edge = std::make_unique<QWidget>(nullptr,
            overlayFlags | Qt::WindowTransparentForInput | Qt::WindowDoesNotAcceptFocus | Qt::Tool);
        edge->setObjectName("regionOutline");
        edge->setWindowTitle("Plim outline");
        QPalette palette = edge->palette();
        palette.setColor(QPalette::Window, QColor(0xe0, 0x2b, 0x2b));
        edge->setPalette(palette);
        edge->setAutoFillBackground(true);
    }
}

RegionOutline::~RegionOutline() = default;

void RegionOutline::showAround(const Rect& area)
{
    const int t = 3;
    QRect r = toWindowRect(area);
    QRect rects[4] = {
        QRect(r.left() - t, r.top() - t, r.width() + 2 * t, t), // above
        QRect(r.left() - t, r.top() + r.height(), r.width() + 2 * t, t), // below
        QRect(r.left() - t, r.top(), t, r.height()), // left
        QRect(r.left() + r.width(), r.top(), t, r.height()), // right
    };
    for (int i = 0; i < 4; ++i) {
        m_edges[i]->setGeometry(rects[i]);
        m_edges[i]->show();
        m_edges[i]->raise();
    }
}

void RegionOutline::hide()
{
    for (auto& edge : m_edges)
        edge->hide();
}

} // namespace plim
