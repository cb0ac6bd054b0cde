#pragma once
// The editor's timeline over the whole recording (movie seconds run left to right): the
// kept clips with their pictures and yellow trim ends, the cut stretches between them, the
// sped-up stretches with their rate, the sound's waveform, zoom blocks, blur spans,
// voiceovers, the caption lines with their words, the clicks and keys as ticks, the marks
// and the playhead. Every drag is one
// undo step of the document; drags snap to the playhead, clicks and marks. Ctrl+wheel
// zooms the timeline about the pointer; the wheel scrolls it.
//
// Threads: GUI thread. Pictures and peaks come from their sources' workers as they arrive;
// painting never waits for them.

#include "captions/caption_track.h"
#include "plan/time_remap.h"
#include "ui/editor_media.h"

#include <QPointer>
#include <QWidget>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace plim {

class PlimDocument;

class TimelineView : public QWidget {
    Q_OBJECT
public:
    enum class Lane { ruler, clips, speed, sound, zooms, blurs, voiceovers, captions, ticks };
    enum class ItemKind { none, zoom, blur, pause, voiceover };
    struct Selection {
        ItemKind kind = ItemKind::none;
        std::string id;
        bool operator==(const Selection&) const = default;
    };

    explicit TimelineView(PlimDocument& document, QWidget* parent = nullptr);
    ~TimelineView() override;

    void setMoments(PlimMoments moments);
    void setSources(ThumbnailSource* thumbnails, WaveformSource* waveform);
    // Read-only: the timeline shows and scrubs but edits nothing.
    void setReadOnly(bool readOnly);
    // The document's edits changed (an edit, undo, redo).
    void refresh();

    // The playhead, in output seconds as the preview plays them.
    void setPlayhead(double outputTime);
    double playhead() const { return m_playhead; }
    const TimeRemap& remap() const { return m_remap; }

    // The plim's caption lines (source seconds), shown but not edited here; `problem` is a
    // short note written in their lane when the track could not be read.
    void setCaptions(std::vector<CaptionLine> lines, QString problem = {});

    // The take being recorded (source seconds), drawn in the voiceovers lane as it grows.
    void setRecordingTake(std::optional<std::pair<double, double>> startAndLength);

    const Selection& selection() const { return m_selection; }
    void select(Selection selection);

    // Where a movie time lies across the widget, and back.
    double xOf(double sourceTime) const;
    double timeAt(double x) const;
    QRect laneRect(Lane lane) const;
    // Seconds shown by one pixel; Ctrl+wheel changes it.
    double secondsPerPixel() const { return 1.0 / m_pxPerSecond; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

signals:
    // The user moved the playhead (output seconds); `dragging` while a scrub goes on.
    void scrubbed(double outputTime, bool dragging);
    void selectionChanged();
    // A zoom block was clicked: its popover opens under `where` (global).
    void zoomClicked(const QString& id, QPoint where);
    void pauseClicked(const QString& id, QPoint where);

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void resizeEvent(QResizeEvent*) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    struct Drag;
    // What lies under a point and what a press there would drag.
    std::optional<Drag> hit(QPointF point) const;
    void dragTo(double x);
    // `t` moved onto a playhead, click or mark within reach; `own` is where the dragged edge was.
    double snapped(double t, double own) const;
    void fit();
    void clampView();
    void setCursorFor(QPointF point);

    void paintRuler(QPainter& p);
    void paintClips(QPainter& p);
    void paintSpeed(QPainter& p);
    void paintSound(QPainter& p);
    void paintZooms(QPainter& p);
    void paintBlurs(QPainter& p);
    void paintVoiceovers(QPainter& p);
    void paintCaptions(QPainter& p);
    void paintTicks(QPainter& p);
    void paintPlayhead(QPainter& p);

    PlimDocument& m_document;
    TimeRemap m_remap;
    PlimMoments m_moments;
    QPointer<ThumbnailSource> m_thumbnails;
    QPointer<WaveformSource> m_waveform;
    double m_playhead = 0;
    double m_pxPerSecond = 10;
    double m_viewStart = 0; // movie seconds at the left edge of the lanes
    bool m_fitted = true;   // zoomed to show the whole recording
    bool m_readOnly = false;
    Selection m_selection;
    std::optional<std::pair<double, double>> m_recordingTake;
    std::vector<CaptionLine> m_captions;
    QString m_captionProblem;
    std::unique_ptr<Drag> m_drag;
};

} // namespace plim
