#pragma once
// The live bar while recording: elapsed time, pause/resume, mark, stop, start again, and
// the notices about inputs that are not being recorded. It is kept out of the recorded
// picture: beside an area or window, or on another display than a recorded display.
//
// Threads: GUI thread.

#include "base/geometry.h"
#include "ui/recording_driver.h"
#include "ui/shell_actions.h"

#include <QWidget>

#include <optional>
#include <vector>

class QLabel;

namespace plim {

// Where a bar of `size` goes so that it is on a display and outside `subject`: centred
// below it, else above it, else on another display (at its foot). A whole recorded display
// (`wholeDisplay`) only leaves the other displays. Nothing when there is no such place.
std::optional<Rect> liveBarPlace(const Rect& subject, bool wholeDisplay, const std::vector<Rect>& displays,
    double width, double height);

class LiveBar : public QWidget {
    Q_OBJECT
public:
    LiveBar(const ShellActions& actions, std::function<void()> replim);
    void update(RecordingDriver::State state, double elapsed, int marks);
    void addNotice(const QString& sentence);
    void clearNotices();

private:
    QLabel* m_clock = nullptr;
    QLabel* m_marks = nullptr;
    QLabel* m_notices = nullptr;
};

} // namespace plim
