#pragma once
// Windows drawn over and around the recorded subject: the countdown before a recording and
// the outline while it rolls. Both are plain opaque frameless windows (shaped where round):
// a translucent window shows black on an X11 desktop without a compositor.
//
// Threads: GUI thread.

#include "base/geometry.h"

#include <QTimer>
#include <QWidget>

#include <array>
#include <memory>

namespace plim {

// The big number counting down over the middle of the subject; Esc cancels. It grabs the
// keyboard while it shows so that Esc reaches it whichever window had focus.
class CountdownOverlay : public QWidget {
    Q_OBJECT
public:
    CountdownOverlay(const Rect& subject, int seconds);
    void begin();
    int secondsLeft() const { return m_left; }

signals:
    void finished();
    void cancelled();

protected:
    void paintEvent(QPaintEvent*) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void end(bool cancelled);

    int m_left;
    QTimer m_tick;
    bool m_ended = false;
};

// Four thin windows just outside the recorded area, so the outline is never in the picture.
class RegionOutline {
public:
    RegionOutline();
    ~RegionOutline();
    void showAround(const Rect& area);
    void hide();

private:
    std::array<std::unique_ptr<QWidget>, 4> m_edges;
};

} // namespace plim
