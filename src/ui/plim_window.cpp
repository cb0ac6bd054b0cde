#include "ui/plim_window.h"

#include "app/plan_report.h"
#include "base/files.h"
#include "base/image.h"
#include "base/log.h"
#include "capture/capture.h"
#include "media/movie_reader.h"
#include "share/plim_thumbs.h"
#include "ui/desktop_services.h"

#include <QApplication>
#include <QBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <QPushButton>
#include <QThreadPool>

namespace plim {

namespace {

// Runs `work` on the pool and hands its result to `window` on the GUI thread, unless the
// window has closed by then.
template <typename Window, typename Work, typename Done>
void inBackground(Window* window, Work work, Done done)
{
    QPointer<Window> guard(window);
    QThreadPool::globalInstance()->start([guard, work = std::move(work), done = std::move(done)]() mutable {
        auto result = work();
        QMetaObject::invokeMethod(qApp, [guard, result = std::move(result), done = std::move(done)]() mutable {
            if (guard)
                done(guard.data(), std::move(result));
        });
    });
}

} // namespace

StagedCard::StagedCard(QWidget* parent) : QWidget(parent)
{
    setObjectName("stagedCard");
    setMinimumSize(560, 340);
    m_animation.setStartValue(0.0);
    m_animation.setEndValue(1.0);
    m_animation.setDuration(700);
    m_animation.setEasingCurve(QEasingCurve::OutCubic);
    connect(&m_animation, &QVariantAnimation::valueChanged, this, [this](const QVariant& value) {
        m_progress = value.toDouble();
        update();
    });
    connect(&m_animation, &QVariantAnimation::finished, this, &StagedCard::landed);
}

void StagedCard::lift(const QImage& frame)
{
    m_picture = frame;
    m_progress = 0;
    m_animation.start();
}

void StagedCard::setPicture(const QImage& picture)
{
    m_picture = picture;
    update();
}

void StagedCard::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    p.fillRect(rect(), QColor(0x24, 0x26, 0x2b));
    // The card: the whole window at the start of the lift, an inset rounded card at the end.
    QSizeF size = m_picture.isNull() ? QSizeF(16, 9) : QSizeF(m_picture.size());
    QRectF full = rect();
    QRectF landed = rect().adjusted(40, 28, -40, -28);
    QSizeF fit = size.scaled(landed.size(), Qt::KeepAspectRatio);
    landed = QRectF(landed.center().x() - fit.width() / 2, landed.center().y() - fit.height() / 2, fit.width(),
        fit.height());
    double t = m_progress;
    QRectF card(full.x() + (landed.x() - full.x()) * t, full.y() + (landed.y() - full.y()) * t,
        full.width() + (landed.width() - full.width()) * t, full.height() + (landed.height() - full.height()) * t);
    double radius = 14 * t;
    if (t > 0) {
        QPainterPath shadow;
        shadow.addRoundedRect(card.translated(0, 10 * t), radius, radius);
        p.fillPath(shadow, QColor(0, 0, 0, int(110 * t)));
    }
    QPainterPath clip;
    clip.addRoundedRect(card, radius, radius);
    p.setClipPath(clip);
    if (m_picture.isNull())
        p.fillRect(card, QColor(0x3a, 0x3d, 0x44));
    else
        p.drawImage(card, m_picture);
}

PlimWindow::PlimWindow(Opening opening, std::function<void(const std::filesystem::path&)> share)
    : m_movie(std::move(opening.movie)), m_share(std::move(share))
{
    setObjectName("plimWindow");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(QString::fromStdString(m_movie.stem().string()));
    auto* layout = new QVBoxLayout(this);
    m_card = new StagedCard;
    layout->addWidget(m_card, 1);
    auto* name = new QLabel(QString::fromStdString(m_movie.stem().string()));
    QFont bold = name->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 1.2);
    name->setFont(bold);
    layout->addWidget(name);
    m_status = new QLabel;
    m_status->setObjectName("editStatus");
    m_status->setWordWrap(true);
    layout->addWidget(m_status);
    m_notice = new QLabel;
    m_notice->setObjectName("plimNotice");
    m_notice->setWordWrap(true);
    m_notice->hide();
    layout->addWidget(m_notice);
    auto* buttons = new QHBoxLayout;
    layout->addLayout(buttons);
    auto* play = new QPushButton("Play");
    auto* shareButton = new QPushButton("Share…");
    auto* folder = new QPushButton("Show in Folder");
    buttons->addWidget(play);
    buttons->addWidget(shareButton);
    buttons->addStretch(1);
    buttons->addWidget(folder);
    connect(play, &QPushButton::clicked, this, [this] {
        if (auto opened = openInDesktop(m_movie); !opened)
            showLine(QString::fromStdString(opened.error().sentence), true);
    });
    connect(shareButton, &QPushButton::clicked, this, [this] {
        if (m_share)
            m_share(m_movie);
    });
    connect(folder, &QPushButton::clicked, this, [this] {
        if (auto shown = showInFileManager(m_movie); !shown)
            showLine(QString::fromStdString(shown.error().sentence), true);
    });
    if (opening.notice)
        showLine(QString::fromStdString(*opening.notice), true);
    resize(760, 600);

    const bool fresh = !fs::exists(sidecarPath(m_movie, PlimFiles::edits));
    if (opening.stagedMoment && opening.notice)
        logLine("Plim: the plim stopped early (" + *opening.notice
            + "); opening what was saved without the staged moment.");
    else if (opening.stagedMoment)
        readLastFrame();
    makeEditAndPoster(fresh);
}

QString PlimWindow::status() const { return m_status->text(); }

void PlimWindow::showLine(const QString& sentence, bool failure)
{
    m_notice->setText(sentence);
    m_notice->setStyleSheet(failure ? "color: #c0392b;" : QString());
    m_notice->show();
}

void PlimWindow::readLastFrame()
{
    auto movie = m_movie;
    inBackground(
        this,
        [movie]() -> Result<Image> {
            auto reader = MovieReader::create(movie);
            if (!reader)
                return std::unexpected((reader.error()));
            PLIM_TRY((*reader)->seek(std::max(0.0, (*reader)->info().duration - 0.05)));
            std::optional<Image> last;
            while (true) {
                auto frame = (*reader)->next();
                if (!frame || !*frame)
                    break;
                last = (*frame)->image;
            }
            if (!last)
                return fail("the movie has no picture to show", Error::Kind::corrupt);
            return *last;
        },
        [](PlimWindow* window, Result<Image> frame) {
            if (!frame)
                logLine("Plim: the staged moment could not read the last frame of " + window->m_movie.string() + " ("
                    + frame.error().sentence + "); it starts on an empty card.");
            window->m_card->lift(frame ? toQImage(*frame) : QImage());
        });
}

void PlimWindow::makeEditAndPoster(bool makeEdit)
{
    if (makeEdit)
        m_status->setText("Making the edit: trimming the ends, finding the clicks");
    struct Made {
        std::optional<std::string> summary; // the automatic edit's, when one was made
        std::optional<std::string> failure;
        QImage poster;
    };
    auto movie = m_movie;
    inBackground(
        this,
        [movie, makeEdit]() -> Made {
            Made made;
            if (makeEdit) {
                auto report = gatherPlan(movie);
                if (!report) {
                    made.failure = report.error().sentence;
                } else {
                    auto proposal = proposeAutoEdit(*report);
                    if (auto written = writePlanAsEdits(*report, proposal.plan); !written)
                        made.failure = written.error().sentence;
                    else
                        made.summary = proposal.summary;
                }
            }
            if (auto stored = PlimThumbs::read(movie); stored && !PlimThumbs::isStale(movie))
                made.poster = toQImage(stored->poster);
            else if (auto drawn = PlimThumbs::draw(movie, desktopWallpaper(), true))
                made.poster = toQImage(drawn->poster);
            return made;
        },
        [](PlimWindow* window, Made made) {
            if (made.failure)
                window->m_status->setText("The automatic edit could not be made: " + QString::fromStdString(*made.failure));
            else if (made.summary)
                window->m_status->setText(made.summary->empty() ? "The edit: nothing to change"
                                                                : "The edit: " + QString::fromStdString(*made.summary));
            if (made.poster.isNull())
                return;
            auto show = [window, poster = made.poster] { window->m_card->setPicture(poster); };
            if (window->m_card->isLanded())
                show();
            else
                connect(window->m_card, &StagedCard::landed, window, show, Qt::SingleShotConnection);
        });
}

} // namespace plim
