#include "ui/staged_card.h"

#include "media/movie_reader.h"

#include <QPainter>
#include <QPainterPath>

#include <algorithm>

namespace plim {

Result<Image> lastFrame(const std::filesystem::path& movie)
{
    auto reader = PLIM_TRY(MovieReader::create(movie));
    PLIM_TRY(reader->seek(std::max(0.0, reader->info().duration - 0.05)));
    std::optional<Image> last;
    while (true) {
        auto frame = reader->next();
        if (!frame || !*frame)
            break;
        last = (*frame)->image;
    }
    if (!last)
        return fail("the movie has no picture to show", Error::Kind::corrupt);
    return *last;
}

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

} // namespace plim
