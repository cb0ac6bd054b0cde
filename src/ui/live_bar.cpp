#include "ui/live_bar.h"

#include "capture/capture_session.h"
#include "ui/desktop_services.h"

#include <QAction>
#include <QBoxLayout>
#include <QLabel>
#include <QPixmap>
#include <QTimer>
#include <QToolButton>

#include <algorithm>

namespace plim {

namespace {

bool inside(const Rect& inner, const Rect& outer)
{
    return inner.x >= outer.x && inner.y >= outer.y && inner.x + inner.width <= outer.x + outer.width
        && inner.y + inner.height <= outer.y + outer.height;
}

bool overlaps(const Rect& a, const Rect& b)
{
    return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

constexpr const char* barStyle = "background: #242424; border: 1px solid #5a5a5a; }"
                                 "QLabel { color: #f2f2f2; }"
                                 "QToolButton { color: #f2f2f2; background: #3a3a3a; border: 1px solid #5a5a5a;"
                                 " border-radius: 4px; padding: 3px 10px; }"
                                 "QToolButton:hover { background: #4a4a4a; }"
                                 "QToolButton:pressed { background: #1c1c1c; }"
                                 "QToolButton:checked { background: #5a3a3a; }";

// A dark strip with its own edge, so it reads as Plim's control and not part of whatever
// window it floats over (no compositor is needed for a solid background).
void styleBar(QWidget* bar, const QString& name, const QString& title)
{
    bar->setObjectName(name);
    bar->setWindowTitle(title);
    bar->setAttribute(Qt::WA_StyledBackground);
    bar->setStyleSheet("#" + name + " { " + barStyle);
}

QLabel* clockLabel(const QString& text)
{
    auto* clock = new QLabel(text);
    QFont font = clock->font();
    font.setPointSizeF(font.pointSizeF() * 1.3);
    font.setBold(true);
    clock->setFont(font);
    clock->setMinimumWidth(70);
    return clock;
}

QToolButton* actionButton(QAction* action)
{
    auto* b = new QToolButton;
    b->setDefaultAction(action);
    b->setToolButtonStyle(Qt::ToolButtonTextOnly);
    return b;
}

QLabel* noticesLabel()
{
    auto* notices = new QLabel;
    notices->setObjectName("liveNotices");
    notices->setWordWrap(true);
    notices->setStyleSheet("color: #ffb04a;");
    notices->hide();
    return notices;
}

void appendLine(QLabel* label, const QString& sentence)
{
    const QString text = label->text();
    label->setText(text.isEmpty() ? sentence : text + "\n" + sentence);
    label->show();
}

constexpr Qt::WindowFlags barFlags
    = Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::Tool | Qt::WindowDoesNotAcceptFocus;

} // namespace

std::optional<Rect> liveBarPlace(const Rect& subject, bool wholeDisplay, const std::vector<Rect>& displays,
    double width, double height)
{
    const double gap = 12;
    if (!wholeDisplay) {
        double x = subject.x + (subject.width - width) / 2;
        for (double y : {subject.y + subject.height + gap, subject.y - gap - height}) {
            for (const Rect& display : displays) {
                Rect bar{std::clamp(x, display.x, display.x + display.width - width), y, width, height};
                if (inside(bar, display) && !overlaps(bar, subject))
                    return bar;
            }
        }
    }
    for (const Rect& display : displays) {
        Rect bar{display.x + (display.width - width) / 2, display.y + display.height - height - 48, width, height};
        if (inside(bar, display) && !overlaps(display, subject))
            return bar;
    }
    return std::nullopt;
}

LiveBar::LiveBar(const ShellActions& actions, std::function<void()> replim) : QWidget(nullptr, barFlags)
{
    styleBar(this, "liveBar", "Plim live bar");
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(10, 6, 10, 6);
    auto* row = new QHBoxLayout;
    outer->addLayout(row);
    m_clock = clockLabel("0:00");
    m_clock->setObjectName("liveClock");
    row->addWidget(m_clock);
    row->addWidget(actionButton(actions.pause));
    row->addWidget(actionButton(actions.mark));
    m_marks = new QLabel;
    m_marks->setObjectName("liveMarks");
    row->addWidget(m_marks);
    auto* again = new QToolButton;
    again->setText("Start Again");
    again->setToolTip("Throw this recording away and start the same one again");
    connect(again, &QToolButton::clicked, this, [replim] { replim(); });
    row->addWidget(again);
    row->addWidget(actionButton(actions.stop));
    m_notices = noticesLabel();
    outer->addWidget(m_notices);
    setMinimumWidth(420);
}

void LiveBar::update(RecordingDriver::State state, double elapsed, int marks)
{
    QString clock = QString::fromStdString(CaptureSession::lengthText(elapsed));
    m_clock->setText(state == RecordingDriver::State::paused ? "❚❚ " + clock : "● " + clock);
    m_clock->setStyleSheet(state == RecordingDriver::State::paused ? "color: #a0a0a0;" : "color: #ff4a4a;");
    m_marks->setText(marks > 0 ? QString("%1 mark%2").arg(marks).arg(marks == 1 ? "" : "s") : QString());
}

void LiveBar::addNotice(const QString& sentence)
{
    appendLine(m_notices, sentence);
    adjustSize();
}

void LiveBar::clearNotices()
{
    m_notices->clear();
    m_notices->hide();
    adjustSize();
}

LiveStreamBar::LiveStreamBar(QAction* stopLive, Latest latest) : QWidget(nullptr, barFlags), m_latest(std::move(latest))
{
    styleBar(this, "liveStreamBar", "Plim live stream");
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(10, 6, 10, 8);
    auto* row = new QHBoxLayout;
    outer->addLayout(row);
    auto* title = clockLabel("● Live");
    title->setStyleSheet("color: #ff4a4a;");
    row->addWidget(title);
    row->addStretch();
    row->addWidget(actionButton(stopLive));
    m_preview = new QLabel;
    m_preview->setObjectName("livePreview");
    m_preview->setFixedSize(previewWidth, previewHeight);
    m_preview->setAlignment(Qt::AlignCenter);
    m_preview->setStyleSheet("background: #000000; border: none;");
    outer->addWidget(m_preview, 0, Qt::AlignHCenter);
    m_health = new QLabel;
    m_health->setObjectName("liveHealth");
    m_health->setWordWrap(true);
    outer->addWidget(m_health);
    m_note = new QLabel;
    m_note->setObjectName("liveNote");
    m_note->setWordWrap(true);
    m_note->setStyleSheet("color: #a0c8ff;");
    m_note->hide();
    outer->addWidget(m_note);
    m_notices = noticesLabel();
    outer->addWidget(m_notices);
    setFixedWidth(previewWidth + 22);
    m_repaint = new QTimer(this);
    m_repaint->setInterval(previewInterval);
    connect(m_repaint, &QTimer::timeout, this, &LiveStreamBar::repaintPreview);
}

void LiveStreamBar::setStarting(const QString& progress) { setHealth(progress + "…"); }

void LiveStreamBar::setHealth(const QString& line)
{
    if (line == m_health->text())
        return;
    m_health->setText(line);
    adjustSize();
}

void LiveStreamBar::anchorAt(QPoint corner)
{
    m_corner = corner;
    move(corner.x() - width(), corner.y() - height());
}

void LiveStreamBar::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    if (m_corner)
        move(m_corner->x() - width(), m_corner->y() - height());
}

void LiveStreamBar::setNote(const QString& note)
{
    if (note.isEmpty())
        return;
    m_note->setText(note);
    m_note->show();
    adjustSize();
}

void LiveStreamBar::addNotice(const QString& sentence)
{
    appendLine(m_notices, sentence);
    adjustSize();
}

void LiveStreamBar::clear()
{
    m_preview->clear();
    m_shown.reset();
    m_health->clear();
    m_note->clear();
    m_note->hide();
    m_notices->clear();
    m_notices->hide();
    adjustSize();
}

void LiveStreamBar::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    repaintPreview();
    m_repaint->start();
}

void LiveStreamBar::hideEvent(QHideEvent* event)
{
    m_repaint->stop();
    QWidget::hideEvent(event);
}

void LiveStreamBar::repaintPreview()
{
    if (!m_latest)
        return;
    auto latest = m_latest(previewWidth);
    if (!latest || latest->second == m_shown)
        return;
    m_shown = latest->second;
    QImage picture = toQImage(latest->first);
    if (picture.height() > previewHeight)
        picture = picture.scaledToHeight(previewHeight, Qt::SmoothTransformation);
    m_preview->setPixmap(QPixmap::fromImage(picture));
}

} // namespace plim
