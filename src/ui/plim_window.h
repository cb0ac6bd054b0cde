#pragma once
// A finished plim's window, opened by the stop flow and from the library: the staged moment
// (the recording's last frame lifted onto a card), then the poster; the automatic edit with
// its status line when the plim has no edits yet; Play, Share and Show in Folder.
//
// Threads: GUI thread; reading frames, the automatic edit and the poster run on the
// global thread pool and come back to the window (or to nothing, if it has closed).

#include <QImage>
#include <QVariantAnimation>
#include <QWidget>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

class QLabel;

namespace plim {

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

class PlimWindow : public QWidget {
    Q_OBJECT
public:
    struct Opening {
        std::filesystem::path movie;
        bool stagedMoment = false;          // the stop flow's lift of the last frame
        std::optional<std::string> notice;  // why the recording ended early, and so on
    };
    PlimWindow(Opening opening, std::function<void(const std::filesystem::path&)> share);

    const std::filesystem::path& movie() const { return m_movie; }
    QString status() const;

private:
    void readLastFrame();
    void makeEditAndPoster(bool makeEdit);
    void showLine(const QString& sentence, bool failure);

    std::filesystem::path m_movie;
    StagedCard* m_card = nullptr;
    QLabel* m_status = nullptr;
    QLabel* m_notice = nullptr;
    std::function<void(const std::filesystem::path&)> m_share;
};

} // namespace plim
