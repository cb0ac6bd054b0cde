#include "ui/live_bar.h"

#include "capture/capture_session.h"

#include <QAction>
#include <QBoxLayout>
#include <QLabel>
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

LiveBar::LiveBar(const ShellActions& actions, std::function<void()> replim)
    : QWidget(nullptr, Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::Tool
            | Qt::WindowDoesNotAcceptFocus)
{
    setObjectName("liveBar");
    setWindowTitle("Plim live bar");
    // A dark strip with its own edge, so it reads as Plim's control and not part of whatever
    // window it floats over (no compositor is needed for a solid background).
    setAttribute(Qt::WA_StyledBackground);
    setStyleSheet("#liveBar { background: #242424; border: 1px solid #5a5a5a; }"
                  "QLabel { color: #f2f2f2; }"
                  "QToolButton { color: #f2f2f2; background: #3a3a3a; border: 1px solid #5a5a5a;"
                  " border-radius: 4px; padding: 3px 10px; }"
                  "QToolButton:hover { background: #4a4a4a; }"
                  "QToolButton:pressed { background: #1c1c1c; }"
                  "QToolButton:checked { background: #5a3a3a; }");
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(10, 6, 10, 6);
    auto* row = new QHBoxLayout;
    outer->addLayout(row);
    m_clock = new QLabel("0:00");
    m_clock->setObjectName("liveClock");
    QFont clockFont = m_clock->font();
    clockFont.setPointSizeF(clockFont.pointSizeF() * 1.3);
    clockFont.setBold(true);
    m_clock->setFont(clockFont);
    m_clock->setMinimumWidth(70);
    row->addWidget(m_clock);
    auto button = [&](QAction* action) {
        auto* b = new QToolButton;
        b->setDefaultAction(action);
        b->setToolButtonStyle(Qt::ToolButtonTextOnly);
        row->addWidget(b);
        return b;
    };
    button(actions.pause);
    button(actions.mark);
    m_marks = new QLabel;
    m_marks->setObjectName("liveMarks");
    row->addWidget(m_marks);
    auto* again = new QToolButton;
    again->setText("Start Again");
    again->setToolTip("Throw this recording away and start the same one again");
    connect(again, &QToolButton::clicked, this, [replim] { replim(); });
    row->addWidget(again);
    button(actions.stop);
    m_notices = new QLabel;
    m_notices->setObjectName("liveNotices");
    m_notices->setWordWrap(true);
    m_notices->setStyleSheet("color: #ffb04a;");
    m_notices->hide();
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
    QString text = m_notices->text();
    m_notices->setText(text.isEmpty() ? sentence : text + "\n" + sentence);
    m_notices->show();
    adjustSize();
}

void LiveBar::clearNotices()
{
    m_notices->clear();
    m_notices->hide();
    adjustSize();
}

} // namespace plim
