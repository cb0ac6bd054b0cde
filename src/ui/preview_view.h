#pragma once
// The editor's preview: the staged picture of one plim at the widget's size, drawn from
// PreviewPlayer's frames (stage/preview_player.h) and letterboxed in the widget, with its
// sound on the sound server when there is one.
//
// Threads: GUI thread. Opening reads the plim on the global thread pool; rendering and
// sound run on the player's threads, whose frames come back to this widget (or to
// nothing, once it is gone) through the GUI thread's event loop.

#include "captions/caption_track.h"
#include "library/plim_edits.h"

#include <QImage>
#include <QPointF>
#include <QTimer>
#include <QWidget>

#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>

namespace plim {

class PreviewPlayer;
struct SharePlim;
struct StageSpec;

// The staged picture of one plim at the widget's size, drawn from PreviewPlayer's frames.
// GUI thread; rendering and sound run on the player's threads.
class PreviewView : public QWidget {
    Q_OBJECT
public:
    explicit PreviewView(QWidget* parent = nullptr);
    ~PreviewView() override;
    // Opens the plim's movie with these edits on a worker; then opened() or failed().
    void open(const std::filesystem::path& movie, const PlimEdits& edits);
    // The shown frame is drawn again with the new edits (look, zooms, blurs...) at once.
    void setEdits(const PlimEdits& edits);
    // The caption lines the picture shows while the look's captions are on, in place of the
    // track read beside the movie as it opens; kept for later opens.
    void setCaptions(CaptionTrack track);
    // The stage look beside the movie (B.stage.json, else the defaults) that the edits' look
    // is worn over; null until the plim is open.
    const StageSpec* stageBase() const;
    // That stage look as a look, at the canvas a plim without a look of its own is staged
    // on; nothing until the plim is open.
    std::optional<PlimLook> stagedLook() const;
    void setShowsRecording(bool raw);         // the raw recording instead of the staged picture
    // Plays silence in place of the plim's sound (the pictures keep their pace), for a
    // voiceover narrated without headphones; takes effect within a fifth of a second.
    void setMuted(bool muted);
    bool isMuted() const;
    bool showsRecording() const;
    void play();
    void pause();
    void togglePlay();                        // Space
    void shuttle(int direction);              // J (-1), K (0 = pause), L (+1); repeated J/L go faster
    void step(int frames);                    // Left/Right arrows: one output frame
    void seek(double outputTime, bool scrubbing = false); // scrub: nearest cached frame first, then the exact one
    double position() const;                  // output seconds
    double duration() const;                  // output seconds of the current edit
    bool isPlaying() const;
    // Where a point of the recording (source pixels) shows in this widget in the frame shown,
    // and back; nothing while no frame is shown or the point is off the card.
    std::optional<QPointF> widgetPointOf(QPointF sourcePoint) const;
    std::optional<QPointF> sourcePointOf(QPointF widgetPoint) const;
    QImage shownFrame() const;                // the picture now shown (for tests and grabs)
    int64_t framesShown() const;              // frames put on screen since open

signals:
    void opened(double duration);
    void failed(QString sentence);
    void positionChanged(double outputTime);  // at most once a frame while playing
    void playingChanged(bool playing);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    struct Inbox; // frames from the player's thread, taken on the GUI thread
    struct Shown;

    void takeFrame();
    QSize outputSizeFor(QSize widget) const;
    QRectF pictureRect() const; // where the shown frame lies in the widget

    std::shared_ptr<Inbox> m_inbox;
    std::shared_ptr<std::atomic<bool>> m_muted; // read by the player's sound thread
    std::unique_ptr<PreviewPlayer> m_player;
    std::shared_ptr<SharePlim> m_plim;
    std::unique_ptr<Shown> m_shown;
    std::optional<PlimEdits> m_pendingEdits; // set while opening, put on once open
    std::optional<PlimLook> m_stagedLook;
    std::optional<CaptionTrack> m_captions;
    QTimer m_resize; // gathers a drag's resizes into one new output size
    double m_canvasAspect = 16.0 / 10.0;
    double m_duration = 0;
    double m_position = 0;
    bool m_raw = false;
    bool m_playing = false;
    int64_t m_framesShown = 0;
    uint64_t m_opening = 0; // which open() is in flight
};

} // namespace plim
