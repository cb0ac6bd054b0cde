#include "ui/preview_view.h"

#include "base/log.h"
#include "share/share_plim.h"
#include "stage/preview_player.h"
#include "stage/sound_output.h"
#include "ui/desktop_services.h"

#include <QApplication>
#include <QKeyEvent>
#include <QPainter>
#include <QPointer>
#include <QThreadPool>

#include <cmath>
#include <utility>
#include <mutex>
#include <vector>

namespace plim {

// Frames and news from the player's thread, waiting for the GUI thread. At most one
// wake-up is posted at a time, so a slow GUI thread sees only the latest frame.
struct PreviewView::Inbox {
    std::mutex mutex;
    QPointer<PreviewView> view; // cleared as the view goes
    std::optional<PreviewFrame> frame;
    std::optional<bool> playing;
    std::optional<std::string> failure;
    bool posted = false;

    void post(std::unique_lock<std::mutex>& lock)
    {
        if (posted || !view)
            return;
        posted = true;
        QMetaObject::invokeMethod(view.data(), [v = view.data()] { v->takeFrame(); }, Qt::QueuedConnection);
        lock.unlock();
    }
};

struct PreviewView::Shown {
    PreviewFrame frame;
    QImage image; // over frame.image's pixels
};

namespace {

QImage wrap(const Image& image)
{
    if (image.isEmpty())
        return {};
    auto* kept = new Image(image);
    return QImage(kept->pixels.get(), kept->width, kept->height, static_cast<qsizetype>(kept->stride),
        QImage::Format_ARGB32_Premultiplied, [](void* p) { delete static_cast<Image*>(p); }, kept);
}

// The inverse of an affine map; nothing when it is singular.
std::optional<Affine> inverted(const Affine& t)
{
    const double det = t.a * t.d - t.b * t.c;
    if (!std::isfinite(det) || std::abs(det) < 1e-12)
        return std::nullopt;
    Affine inv{t.d / det, -t.b / det, -t.c / det, t.a / det, 0, 0};
    inv.tx = -(t.tx * inv.a + t.ty * inv.c);
    inv.ty = -(t.tx * inv.b + t.ty * inv.d);
    return inv;
}

bool inside(const Rect& r, Point p)
{
    return p.x >= r.minX() - 1e-6 && p.x <= r.maxX() + 1e-6 && p.y >= r.minY() - 1e-6 && p.y <= r.maxY() + 1e-6;
}

// The preview's sound with its samples swapped for silence while muted; its clock runs on.
class MutableSound final : public SoundOutput {
public:
    MutableSound(std::unique_ptr<SoundOutput> sound, std::shared_ptr<std::atomic<bool>> muted)
        : m_sound(std::move(sound)), m_muted(std::move(muted))
    {
    }
    Status open(int rate, int channels) override
    {
        m_channels = channels;
        return m_sound->open(rate, channels);
    }
    Status write(const float* samples, int64_t frames) override
    {
        if (!m_muted->load())
            return m_sound->write(samples, frames);
        m_silence.assign(static_cast<size_t>(std::max<int64_t>(frames, 0) * m_channels), 0.0f);
        return m_sound->write(m_silence.data(), frames);
    }
    void setPaused(bool paused) override { m_sound->setPaused(paused); }
    void flush() override { m_sound->flush(); }
    int64_t playedFrames() const override { return m_sound->playedFrames(); }
    int64_t writtenFrames() const override { return m_sound->writtenFrames(); }
    double latency() const override { return m_sound->latency(); }
    int rate() const override { return m_sound->rate(); }

private:
    std::unique_ptr<SoundOutput> m_sound;
    std::shared_ptr<std::atomic<bool>> m_muted;
    int m_channels = 2;
    std::vector<float> m_silence;
};

} // namespace

PreviewView::PreviewView(QWidget* parent)
    : QWidget(parent), m_inbox(std::make_shared<Inbox>()), m_muted(std::make_shared<std::atomic<bool>>(false))
{
    m_inbox->view = this;
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(160, 100);
    setAttribute(Qt::WA_OpaquePaintEvent);
    m_resize.setSingleShot(true);
    m_resize.setInterval(120);
    connect(&m_resize, &QTimer::timeout, this, [this] {
        if (m_player) {
            const QSize size = outputSizeFor(this->size() * devicePixelRatioF());
            m_player->setOutputSize(size.width(), size.height());
        }
    });
}

PreviewView::~PreviewView()
{
    {
        std::lock_guard lock(m_inbox->mutex);
        m_inbox->view = nullptr;
    }
    m_player.reset(); // joins the player's threads: no frame comes after this
}

QSize PreviewView::outputSizeFor(QSize widget) const
{
    const double w = std::max(widget.width(), 2), h = std::max(widget.height(), 2);
    const double aspect = m_canvasAspect > 0 ? m_canvasAspect : 16.0 / 10.0;
    if (w / h > aspect)
        return {std::max(2, static_cast<int>(h * aspect)), static_cast<int>(h)};
    return {static_cast<int>(w), std::max(2, static_cast<int>(w / aspect))};
}

void PreviewView::open(const std::filesystem::path& movie, const PlimEdits& edits)
{
    m_player.reset();
    m_shown.reset();
    m_plim.reset();
    m_pendingEdits.reset();
    m_stagedLook.reset();
    m_framesShown = 0;
    m_position = m_duration = 0;
    const uint64_t opening = ++m_opening;
    const QSize size = outputSizeFor(this->size() * devicePixelRatioF());
    QPointer<PreviewView> guard(this);
    std::shared_ptr<Inbox> inbox = m_inbox;
    const bool raw = m_raw;
    QThreadPool::globalInstance()->start([guard, inbox, movie, edits, size, opening, raw, muted = m_muted,
                                             captions = m_captions] {
        struct Opened {
            std::shared_ptr<SharePlim> plim;
            std::unique_ptr<PreviewPlayer> player;
            PlimLook stagedLook;
            double aspect = 0;
        };
        auto work = [&]() -> Result<Opened> {
            Opened out;
            std::unique_ptr<MovieReader> reader;
            out.plim = std::make_shared<SharePlim>(PLIM_TRY(SharePlim::read(movie, &reader)));
            if (captions)
                out.plim->job.captions = *captions;
            out.plim->job.wallpaper = wallpaperFor(edits);
            PLIM_TRY(out.plim->wear(edits));
            StagingJob job = out.plim->job;
            const Size recorded{static_cast<double>(out.plim->info.width), static_cast<double>(out.plim->info.height)};
            const PlimLook worn = std::exchange(job.look, PlimLook{});
            const auto bare = StagingEngine::canvas(job, recorded);
            out.stagedLook = lookWornAs(out.plim->baseSpec, Size{double(bare.width), double(bare.height)}, recorded);
            job.look = worn;
            const auto canvas = StagingEngine::canvas(job, recorded);
            out.aspect = static_cast<double>(canvas.width) / canvas.height;
            const double w = std::max(size.width(), 2), h = std::max(size.height(), 2);
            PreviewPlayer::Options options;
            options.movie = std::move(reader);
            if (w / h > out.aspect) {
                options.width = static_cast<int>(h * out.aspect);
                options.height = static_cast<int>(h);
            } else {
                options.width = static_cast<int>(w);
                options.height = static_cast<int>(w / out.aspect);
            }
            if (auto sound = SoundOutput::pulse("Plim preview"))
                options.sound = std::make_unique<MutableSound>(std::move(*sound), muted);
            else
                logLine(LogArea::main, "the preview plays without sound: " + sound.error().sentence);
            PreviewPlayer::Callbacks callbacks;
            callbacks.frame = [inbox](const PreviewFrame& frame) {
                std::unique_lock lock(inbox->mutex);
                inbox->frame = frame;
                inbox->post(lock);
            };
            callbacks.playing = [inbox](bool playing) {
                std::unique_lock lock(inbox->mutex);
                inbox->playing = playing;
                inbox->post(lock);
            };
            callbacks.failed = [inbox](const Error& error) {
                std::unique_lock lock(inbox->mutex);
                inbox->failure = error.sentence;
                inbox->post(lock);
            };
            out.player = PLIM_TRY(PreviewPlayer::open(job, std::move(options), std::move(callbacks)));
            if (raw)
                out.player->showRecording(true);
            return out;
        };
        auto result = std::make_shared<Result<Opened>>(work());
        QMetaObject::invokeMethod(qApp, [guard, result, opening]() mutable {
            if (!guard || guard->m_opening != opening)
                return; // the player, if any, closes with `result`
            PreviewView* view = guard.data();
            if (!*result) {
                emit view->failed(QString::fromStdString(result->error().sentence));
                return;
            }
            view->m_plim = std::move((*result)->plim);
            view->m_player = std::move((*result)->player);
            view->m_canvasAspect = (*result)->aspect;
            view->m_stagedLook = (*result)->stagedLook;
            view->m_duration = view->m_player->duration();
            view->m_resize.start(); // the widget may have changed size meanwhile
            if (view->m_captions && view->m_plim->job.captions != *view->m_captions) // set while opening
                view->setCaptions(*view->m_captions);
            if (auto edits = std::exchange(view->m_pendingEdits, std::nullopt))
                view->setEdits(*edits);
            emit view->opened(view->m_duration);
        });
    });
}

void PreviewView::setMuted(bool muted) { m_muted->store(muted); }

bool PreviewView::isMuted() const { return m_muted->load(); }

void PreviewView::setEdits(const PlimEdits& edits)
{
    if (!m_player || !m_plim) {
        if (m_opening > 0)
            m_pendingEdits = edits; // still opening
        return;
    }
    m_plim->job.wallpaper = wallpaperFor(edits);
    if (auto worn = m_plim->wear(edits); !worn) {
        emit failed(QString::fromStdString(worn.error().sentence));
        return;
    }
    const auto canvas = StagingEngine::canvas(
        m_plim->job, Size{static_cast<double>(m_plim->info.width), static_cast<double>(m_plim->info.height)});
    const double aspect = static_cast<double>(canvas.width) / canvas.height;
    m_player->setJob(m_plim->job);
    m_duration = m_plim->job.plan.clipTimeline(m_plim->info.duration).outputDuration();
    if (std::abs(aspect - m_canvasAspect) > 1e-6) {
        m_canvasAspect = aspect;
        m_resize.start();
    }
}

void PreviewView::setCaptions(CaptionTrack track)
{
    m_captions = std::move(track);
    if (!m_player || !m_plim)
        return;
    m_plim->job.captions = *m_captions;
    m_player->setJob(m_plim->job);
}

const StageSpec* PreviewView::stageBase() const { return m_plim ? &m_plim->baseSpec : nullptr; }

std::optional<PlimLook> PreviewView::stagedLook() const { return m_stagedLook; }

void PreviewView::setShowsRecording(bool raw)
{
    m_raw = raw;
    if (m_player)
        m_player->showRecording(raw);
}

bool PreviewView::showsRecording() const { return m_raw; }

void PreviewView::play()
{
    if (m_player) {
        m_player->setRate(1);
        m_player->play();
    }
}

void PreviewView::pause()
{
    if (m_player)
        m_player->pause();
}

void PreviewView::togglePlay()
{
    if (m_playing)
        pause();
    else
        play();
}

void PreviewView::shuttle(int direction)
{
    if (!m_player)
        return;
    if (direction == 0) {
        m_player->pause();
        return;
    }
    const double rate = m_player->rate();
    double next = direction > 0 ? 1.0 : -1.0;
    if (m_playing && (rate > 0) == (direction > 0))
        next = std::clamp(rate * 2, -2.0, 4.0); // repeated J or L: faster
    m_player->setRate(next);
    m_player->play();
}

void PreviewView::step(int frames)
{
    if (m_player)
        m_player->step(frames);
}

void PreviewView::seek(double outputTime, bool scrubbing)
{
    if (m_player)
        m_player->seek(outputTime, scrubbing);
}

double PreviewView::position() const { return m_position; }
double PreviewView::duration() const { return m_duration; }
bool PreviewView::isPlaying() const { return m_playing; }
int64_t PreviewView::framesShown() const { return m_framesShown; }
QImage PreviewView::shownFrame() const { return m_shown ? m_shown->image.copy() : QImage(); }

void PreviewView::takeFrame()
{
    std::optional<PreviewFrame> frame;
    std::optional<bool> playing;
    std::optional<std::string> failure;
    {
        std::lock_guard lock(m_inbox->mutex);
        m_inbox->posted = false;
        frame = std::move(m_inbox->frame);
        playing = m_inbox->playing;
        failure = std::move(m_inbox->failure);
        m_inbox->frame.reset();
        m_inbox->playing.reset();
    }
    if (frame) {
        m_shown = std::make_unique<Shown>(Shown{*frame, wrap(frame->image)});
        if (frame->exact)
            ++m_framesShown;
        m_position = frame->outputTime;
        update();
        emit positionChanged(m_position);
    }
    if (playing && *playing != m_playing) {
        m_playing = *playing;
        emit playingChanged(m_playing);
    }
    if (failure)
        emit failed(QString::fromStdString(*failure));
}

QRectF PreviewView::pictureRect() const
{
    if (!m_shown || m_shown->image.isNull())
        return {};
    const QSizeF picture = m_shown->image.size();
    const QSizeF fitted = picture.scaled(QSizeF(size()), Qt::KeepAspectRatio);
    return {(width() - fitted.width()) / 2, (height() - fitted.height()) / 2, fitted.width(), fitted.height()};
}

void PreviewView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), QColor(24, 24, 26));
    if (!m_shown || m_shown->image.isNull())
        return;
    painter.setRenderHint(QPainter::SmoothPixmapTransform, m_shown->image.width() != qRound(pictureRect().width()));
    painter.drawImage(pictureRect(), m_shown->image);
}

void PreviewView::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    m_resize.start();
}

void PreviewView::keyPressEvent(QKeyEvent* event)
{
    switch (event->key()) {
    case Qt::Key_Space:
        togglePlay();
        return;
    case Qt::Key_J:
        shuttle(-1);
        return;
    case Qt::Key_K:
        shuttle(0);
        return;
    case Qt::Key_L:
        shuttle(1);
        return;
    case Qt::Key_Left:
        step(-1);
        return;
    case Qt::Key_Right:
        step(1);
        return;
    default:
        QWidget::keyPressEvent(event);
    }
}

std::optional<QPointF> PreviewView::widgetPointOf(QPointF sourcePoint) const
{
    const QRectF shown = pictureRect();
    if (shown.isEmpty())
        return std::nullopt;
    const auto& placement = m_shown->frame.placement;
    const Point out = placement.sourceToOutput.apply(Point{sourcePoint.x(), sourcePoint.y()});
    if (!inside(placement.card, out))
        return std::nullopt;
    const double scale = shown.width() / m_shown->image.width();
    return QPointF(shown.x() + out.x * scale, shown.y() + out.y * scale);
}

std::optional<QPointF> PreviewView::sourcePointOf(QPointF widgetPoint) const
{
    const QRectF shown = pictureRect();
    if (shown.isEmpty())
        return std::nullopt;
    const auto& placement = m_shown->frame.placement;
    const double scale = shown.width() / m_shown->image.width();
    const Point out{(widgetPoint.x() - shown.x()) / scale, (widgetPoint.y() - shown.y()) / scale};
    if (!inside(placement.card, out))
        return std::nullopt;
    const auto back = inverted(placement.sourceToOutput);
    if (!back)
        return std::nullopt;
    const Point source = back->apply(out);
    return QPointF(source.x, source.y);
}

} // namespace plim
