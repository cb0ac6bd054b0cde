#include "ui/better_captions_panel.h"

#include "base/json.h"
#include "base/settings.h"
#include "ui/labels.h"

#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace plim {

BetterCaptionsPanel::BetterCaptionsPanel(SettingsStore& settings, Setup setup, QWidget* parent)
    : QWidget(parent), m_settings(settings), m_setup(std::move(setup))
{
    if (m_setup.sizes.empty())
        m_setup.sizes = captionModelSizes();
    m_switch = new QCheckBox(QStringLiteral("Better captions with Whisper"));
    m_switch->setObjectName(QStringLiteral("betterCaptions"));
    m_switch->setChecked(settings.boolean(std::string(betterCaptionsKey), false));
    m_size = new QComboBox;
    m_size->setObjectName(QStringLiteral("captionModelSize"));
    for (const auto& size : m_setup.sizes)
        m_size->addItem(QString::fromStdString(size.title + " (" + CaptionModelText::size(size.totalBytes()) + ")"),
            QString::fromStdString(size.name));
    const std::string chosen = settings.string(std::string(captionModelSizeKey), std::string(defaultCaptionModelSize));
    m_size->setCurrentIndex(std::max(0, m_size->findData(QString::fromStdString(chosen))));

    m_text = secondaryLabel();
    m_text->setObjectName(QStringLiteral("betterCaptionsText"));
    m_bar = new QProgressBar;
    m_bar->setObjectName(QStringLiteral("captionModelProgress"));
    m_bar->setRange(0, 1000);
    m_status = secondaryLabel();
    m_status->setObjectName(QStringLiteral("captionModelStatus"));
    m_download = new QPushButton(QStringLiteral("Download"));
    m_download->setObjectName(QStringLiteral("downloadCaptionModel"));
    m_pause = new QPushButton(QStringLiteral("Pause"));
    m_pause->setObjectName(QStringLiteral("pauseCaptionModel"));
    m_delete = new QPushButton(QStringLiteral("Delete"));
    m_delete->setObjectName(QStringLiteral("deleteCaptionModel"));

    connect(m_switch, &QCheckBox::toggled, this, [this](bool on) {
        if (auto saved = m_settings.setValue(std::string(betterCaptionsKey), on); !saved) {
            refresh(QString::fromStdString(saved.error().sentence));
            return;
        }
        // Turned on without a model: fetch it.
        if (on && !isDownloading() && !m_setup.store.isReady(chosenSize()))
            startDownload();
    });
    connect(m_size, &QComboBox::currentIndexChanged, this, [this] {
        if (auto saved = m_settings.setValue(std::string(captionModelSizeKey), m_size->currentData().toString().toStdString()); !saved)
            refresh(QString::fromStdString(saved.error().sentence));
        else
            refresh();
    });
    connect(m_download, &QPushButton::clicked, this, &BetterCaptionsPanel::startDownload);
    connect(m_pause, &QPushButton::clicked, this, &BetterCaptionsPanel::pauseDownload);
    connect(m_delete, &QPushButton::clicked, this, &BetterCaptionsPanel::deleteModel);

    auto* top = new QHBoxLayout;
    top->addWidget(m_switch);
    top->addWidget(m_size);
    top->addStretch();
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(m_bar, 1);
    buttons->addWidget(m_download);
    buttons->addWidget(m_pause);
    buttons->addWidget(m_delete);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addLayout(top);
    layout->addWidget(m_text);
    layout->addLayout(buttons);
    layout->addWidget(m_status);
    refresh();
}

BetterCaptionsPanel::~BetterCaptionsPanel()
{
    if (m_worker.joinable()) {
        m_worker.request_stop();
        m_worker.join();
    }
}

CaptionModelSize BetterCaptionsPanel::chosenSize() const
{
    const std::string name = m_size->currentData().toString().toStdString();
    for (const auto& size : m_setup.sizes)
        if (size.name == name)
            return size;
    return m_setup.sizes.front();
}

void BetterCaptionsPanel::startDownload()
{
    if (isDownloading())
        return;
    CaptionModelDownloader downloader(m_setup.store, chosenSize(), m_setup.hosts,
        m_setup.services ? m_setup.services() : CaptionModelServices{});
    m_worker = std::jthread([this, downloader = std::move(downloader)](std::stop_token stop) mutable {
        auto outcome = downloader.run(stop, [this](const CaptionModelProgress& progress) {
            QMetaObject::invokeMethod(this, [this, progress] { showProgress(progress); }, Qt::QueuedConnection);
        });
        QMetaObject::invokeMethod(this, [this, outcome] { downloadEnded(outcome); }, Qt::QueuedConnection);
    });
    m_text->setText(QString::fromUtf8(CaptionModelText::duringDownload));
    m_status->setText(QString());
    m_download->setEnabled(false);
    m_pause->setEnabled(true);
    m_delete->setEnabled(false);
    m_size->setEnabled(false);
}

void BetterCaptionsPanel::pauseDownload()
{
    if (isDownloading())
        m_worker.request_stop();
    else if (auto asked = m_setup.store.requestPause(chosenSize()); !asked)
        refresh(QString::fromStdString(asked.error().sentence));
}

void BetterCaptionsPanel::deleteModel()
{
    auto removed = m_setup.store.remove(chosenSize());
    refresh(removed ? QString() : QString::fromStdString(removed.error().sentence));
}

void BetterCaptionsPanel::showProgress(const CaptionModelProgress& progress)
{
    if (!isDownloading())
        return; // a late report after the end
    if (progress.total > 0)
        m_bar->setValue(int(progress.done * 1000 / progress.total));
    m_status->setText(QString::fromStdString(captionModelStatusLine(chosenSize(), progress)));
    m_status->setVisible(true);
}

void BetterCaptionsPanel::downloadEnded(const Outcome<fs::path>& outcome)
{
    if (m_worker.joinable())
        m_worker.join();
    refresh(outcome.isFinished() ? QString() : QString::fromStdString(outcome.sentence));
}

void BetterCaptionsPanel::refresh(const QString& sentence)
{
    if (isDownloading())
        return;
    const auto size = chosenSize();
    const bool ready = m_setup.store.isReady(size);
    const int64_t present = m_setup.store.bytesOnDisk(size);
    const bool elsewhere = m_setup.store.isDownloading(size); // plimctl in a terminal
    m_text->setText(QString::fromUtf8(ready ? CaptionModelText::downloaded
            : elsewhere                     ? CaptionModelText::duringDownload
                                            : CaptionModelText::beforeDownload));
    m_bar->setValue(size.totalBytes() > 0 ? int(std::min(present, size.totalBytes()) * 1000 / size.totalBytes()) : 0);
    m_bar->setVisible(!ready);
    m_download->setText(present > 0 && !ready ? QStringLiteral("Resume") : QStringLiteral("Download"));
    m_download->setVisible(!ready);
    m_download->setEnabled(!elsewhere);
    m_pause->setEnabled(elsewhere);
    m_delete->setEnabled(present > 0 && !elsewhere);
    m_size->setEnabled(true);
    m_status->setText(sentence);
    m_status->setVisible(!sentence.isEmpty());
}

} // namespace plim
