#include "ui/tray_item.h"

#include "capture/capture_session.h"

#include <QAction>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QSystemTrayIcon>

namespace plim {

TrayItem::TrayItem(const ShellActions& actions, QObject* parent) : QObject(parent)
{
    m_menu = new QMenu;
    m_menu->addAction(actions.record);
    m_menu->addAction(actions.newRecording);
    m_menu->addAction(actions.stop);
    m_menu->addAction(actions.pause);
    m_menu->addAction(actions.mark);
    m_menu->addSeparator();
    m_menu->addAction(actions.goLive);
    m_menu->addAction(actions.stopLive);
    m_menu->addSeparator();
    m_menu->addAction(actions.openLibrary);
    m_menu->addAction(actions.settings);
    m_menu->addSeparator();
    m_menu->addAction(actions.quit);
    m_icon = new QSystemTrayIcon(glyph(m_state), this);
    m_icon->setToolTip("Plim");
    m_icon->setContextMenu(m_menu);
    connect(m_icon, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
            emit activated();
    });
}

TrayItem::~TrayItem() { delete m_menu; }

bool TrayItem::isAvailable() { return QSystemTrayIcon::isSystemTrayAvailable(); }

void TrayItem::show() { m_icon->show(); }

void TrayItem::update(RecordingDriver::State state, double elapsed)
{
    if (state != m_state) {
        m_state = state;
        m_icon->setIcon(glyph(state));
    }
    QString clock = QString::fromStdString(CaptureSession::lengthText(elapsed));
    switch (state) {
    case RecordingDriver::State::idle: m_icon->setToolTip("Plim"); break;
    case RecordingDriver::State::starting: m_icon->setToolTip("Plim: about to record"); break;
    case RecordingDriver::State::rolling: m_icon->setToolTip("Plim: recording " + clock); break;
    case RecordingDriver::State::paused: m_icon->setToolTip("Plim: paused at " + clock); break;
    case RecordingDriver::State::staging: m_icon->setToolTip("Plim: finishing the plim"); break;
    }
}

void TrayItem::say(const QString& title, const QString& message)
{
    m_icon->showMessage(title, message, QSystemTrayIcon::Information, 6000);
}

// Drawn rather than loaded, so they stay sharp at whatever size the tray asks for: a ring
// when idle, a red dot while recording, two bars while paused, a card while staging.
QIcon TrayItem::glyph(RecordingDriver::State state)
{
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter p(&pixmap);
        p.setRenderHint(QPainter::Antialiasing);
        const double s = size;
        const QColor red(0xe0, 0x2b, 0x2b), ink(0x30, 0x30, 0x30), light(0xf2, 0xf2, 0xf2);
        QRectF box(s * 0.1, s * 0.1, s * 0.8, s * 0.8);
        switch (state) {
        case RecordingDriver::State::idle:
        case RecordingDriver::State::starting:
            p.setPen(QPen(light, s * 0.11));
            p.setBrush(ink);
            p.drawEllipse(box);
            p.setPen(Qt::NoPen);
            p.setBrush(state == RecordingDriver::State::starting ? red : light);
            p.drawEllipse(box.center(), s * 0.16, s * 0.16);
            break;
        case RecordingDriver::State::rolling:
            p.setPen(QPen(light, s * 0.08));
            p.setBrush(red);
            p.drawEllipse(box);
            break;
        case RecordingDriver::State::paused:
            p.setPen(QPen(red, s * 0.1));
            p.setBrush(ink);
            p.drawEllipse(box);
            p.setPen(Qt::NoPen);
            p.setBrush(light);
            p.drawRect(QRectF(s * 0.34, s * 0.3, s * 0.11, s * 0.4));
            p.drawRect(QRectF(s * 0.55, s * 0.3, s * 0.11, s * 0.4));
            break;
        case RecordingDriver::State::staging: {
            p.setPen(QPen(ink, s * 0.06));
            p.setBrush(light);
            QPainterPath card;
            card.addRoundedRect(QRectF(s * 0.08, s * 0.2, s * 0.84, s * 0.6), s * 0.1, s * 0.1);
            p.drawPath(card);
            p.setPen(Qt::NoPen);
            p.setBrush(red);
            QPolygonF play({QPointF(s * 0.42, s * 0.36), QPointF(s * 0.42, s * 0.64), QPointF(s * 0.64, s * 0.5)});
            p.drawPolygon(play);
            break;
        }
        }
        p.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

} // namespace plim
