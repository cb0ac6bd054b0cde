#pragma once
// The stop flow's staged moment: the recording's last frame lifted from filling the window
// down onto a card, where the editor's preview then takes over.
//
// Threads: GUI thread; lastFrame() blocks on decoding and runs on a worker. inBackground()
// runs work on the global thread pool and hands its result back on the GUI thread.

#include "base/error.h"
#include "base/image.h"

#include <QApplication>
#include <QImage>
#include <QPointer>
#include <QThreadPool>
#include <QVariantAnimation>
#include <QWidget>

#include <filesystem>

namespace plim {

// Runs `work` on the pool and hands its result to `done(owner, result)` on the GUI thread,
// unless the owner has gone by then.
template <typename Owner, typename Work, typename Done>
void inBackground(Owner* owner, Work work, Done done)
{
    QPointer<Owner> guard(owner);
    QThreadPool::globalInstance()->start([guard, work = std::move(work), done = std::move(done)]() mutable {
        auto result = work();
        QMetaObject::invokeMethod(qApp, [guard, result = std::move(result), done = std::move(done)]() mutable {
            if (guard)
                done(guard.data(), std::move(result));
        });
    });
}

// The last picture of the movie.
Result<Image> lastFrame(const std::filesystem::path& movie);

// The picture on its card: `lift()` animates a full-size frame down onto a card.
class StagedCard : public QWidget {
    Q_OBJECT
public:
    explicit StagedCard(QWidget* parent = nullptr);
    void lift(const QImage& frame); // an empty frame lifts an empty card
    void setPicture(const QImage& picture);
    bool isLanded() const { return m_progress >= 1.0; }

signals:
    void landed();

protected:
    void paintEvent(QPaintEvent*) override;

private:
    QImage m_picture;
    double m_progress = 1.0; // 0: filling the window, 1: on its card
    QVariantAnimation m_animation;
};

} // namespace plim
