#pragma once
// The area picker: every display is covered by an overlay showing a snapshot of that display
// taken just before, dimmed except for the area being chosen. The user drags an area (across
// displays if they like), moves it or adjusts it with its handles or the arrow keys while
// its size is shown beside it; Enter or a double click inside records it, Esc cancels. It
// opens on the last area picked.
//
// A snapshot rather than a translucent window: without a compositor (common on X11) a
// translucent window shows black.
//
// Threads: construct, call and destroy on the GUI thread. onPicked runs there once, after
// the overlays have closed, with the area in global X coordinates (device pixels, which
// are the desktop's points on X11), or nothing when the user cancelled.

#include "base/geometry.h"

#include <QObject>
#include <QRect>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QWidget;

namespace plim {

class AreaPickerOverlay;

class AreaPicker : public QObject {
    Q_OBJECT
public:
    // Areas smaller than this on a side are not recorded.
    static constexpr int smallestSide = 2;

    explicit AreaPicker(std::optional<Rect> last = std::nullopt, QObject* parent = nullptr);
    ~AreaPicker() override;

    std::function<void(std::optional<Rect> area)> onPicked;

    // Takes the snapshots, then shows the overlays and takes the keyboard.
    void show();
    // Ends the pick as Enter (when an area is chosen) or Esc would.
    void accept();
    void cancel();

    // The chosen area in global Qt coordinates (empty before a drag).
    QRect selection() const { return m_selection; }
    std::vector<QWidget*> overlays() const;

private:
    friend class AreaPickerOverlay;
    void setSelection(const QRect& area);
    void finish(std::optional<Rect> area);

    QRect m_selection;
    QRect m_bounds; // all displays together
    std::vector<std::unique_ptr<AreaPickerOverlay>> m_overlays;
    bool m_done = false;
};

} // namespace plim
