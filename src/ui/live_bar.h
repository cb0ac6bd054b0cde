#pragma once
// The live bar while recording: elapsed time, pause/resume, mark, stop, start again, and
// the notices about inputs that are not being recorded. It is kept out of the recorded
// picture: beside an area or window, or on another display than a recorded display.
// Its live form, while the composed picture goes to the cameras: the monitor's picture,
// the sinks' health line, the ladder's note and Stop Live.
//
// Threads: GUI thread.

#include "base/geometry.h"
#include "base/image.h"
#include "ui/recording_driver.h"
#include "ui/shell_actions.h"

#include <QPoint>
#include <QWidget>

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

class QLabel;
class QTimer;

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

class LiveStreamBar : public QWidget {
    Q_OBJECT
public:
    static constexpr int previewWidth = 320;
    static constexpr int previewHeight = 180;
    // Repaints of the preview while shown, in milliseconds apart.
    static constexpr int previewInterval = 100;
    // The monitor's newest frame at most `maxWidth` wide, with its number.
    using Latest = std::function<std::optional<std::pair<Image, int64_t>>(int maxWidth)>;

    LiveStreamBar(QAction* stopLive, Latest latest);
    // While going live: "Opening your screen", ...
    void setStarting(const QString& progress);
    void setHealth(const QString& line);
    void setNote(const QString& note);
    void addNotice(const QString& sentence);
    // Back to an empty picture and lines, for the next run.
    void clear();
    // Keeps the bar's lower right corner at `corner` (global points) as its lines come and go.
    void anchorAt(QPoint corner);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void repaintPreview();

    Latest m_latest;
    QLabel* m_preview = nullptr;
    QLabel* m_health = nullptr;
    QLabel* m_note = nullptr;
    QLabel* m_notices = nullptr;
    QTimer* m_repaint = nullptr;
    std::optional<int64_t> m_shown; // the number of the frame on show
    std::optional<QPoint> m_corner;
};

} // namespace plim
