#include "ui/share_sheet.h"

#include "base/places.h"
#include "base/settings.h"
#include "share/share_plim.h"
#include "share/share_render.h"
#include "ui/desktop_services.h"
#include "ui/labels.h"

#include <QButtonGroup>
#include <QCloseEvent>
#include <QFileDialog>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>


namespace plim {

namespace {

QString mark(ShareStage::State state)
{
    switch (state) {
    case ShareStage::State::waiting: return QStringLiteral("○");
    case ShareStage::State::now: return QStringLiteral("●");
    case ShareStage::State::done: return QStringLiteral("✓");
    case ShareStage::State::skipped: return QStringLiteral("–");
    case ShareStage::State::failed: return QStringLiteral("✕");
    }
    return {};
}


fs::path defaultFolder(const SettingsStore& settings)
{
    const std::string remembered = settings.string(ShareSheet::folderKey, "");
    std::error_code ec;
    if (!remembered.empty() && fs::is_directory(remembered, ec))
        return remembered;
    const fs::path videos = Places::videosDir().value_or(Places::home() / "Videos");
    return fs::is_directory(videos, ec) ? videos : Places::home();
}

} // namespace

ShareSheet::ShareSheet(fs::path movie, SettingsStore& settings, ShareEngine::Environment environment, QWidget* parent)
    : QWidget(parent), m_movie(std::move(movie)), m_settings(settings), m_folder(defaultFolder(settings)),
      m_engine(std::make_unique<ShareEngine>(std::move(environment)))
{
    setObjectName(QStringLiteral("shareSheet"));
    setWindowTitle(QStringLiteral("Share %1").arg(QString::fromStdString(m_movie.stem().string())));
    setFixedWidth(480);

    auto* title = new QLabel(QStringLiteral("Share “%1”").arg(QString::fromStdString(m_movie.stem().string())));
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.3);
    titleFont.setBold(true);
    title->setFont(titleFont);
    title->setObjectName(QStringLiteral("title"));

    // What and how large.
    m_choices = new QWidget;
    auto* grid = new QGridLayout(m_choices);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setHorizontalSpacing(12);
    grid->setVerticalSpacing(8);
    auto segmented = [](QButtonGroup* group, const std::vector<std::pair<QString, QString>>& buttons) {
        auto* row = new QHBoxLayout;
        row->setSpacing(0);
        int id = 0;
        for (const auto& [name, text] : buttons) {
            auto* button = new QPushButton(text);
            button->setObjectName(name);
            button->setCheckable(true);
            button->setMinimumWidth(88);
            group->addButton(button, id++);
            row->addWidget(button);
        }
        row->addStretch();
        return row;
    };
    m_kinds = new QButtonGroup(this);
    grid->addWidget(new QLabel(QStringLiteral("Kind")), 0, 0, Qt::AlignRight | Qt::AlignVCenter);
    grid->addLayout(segmented(m_kinds, {{"kindVideo", "MP4"}, {"kindGif", "GIF"}, {"kindOriginal", "Original"}}), 0, 1);
    m_qualities = new QButtonGroup(this);
    grid->addWidget(new QLabel(QStringLiteral("Quality")), 1, 0, Qt::AlignRight | Qt::AlignVCenter);
    grid->addLayout(segmented(m_qualities, {{"quality720", ""}, {"quality1080", ""}, {"quality4K", ""}}), 1, 1);
    m_format = secondaryLabel();
    m_format->setObjectName(QStringLiteral("format"));
    grid->addWidget(m_format, 2, 1);
    m_note = secondaryLabel();
    m_note->setObjectName(QStringLiteral("enlargementNote"));
    grid->addWidget(m_note, 3, 1);

    // Where it goes.
    m_saveChoice = new QRadioButton(QStringLiteral("Save in"));
    m_saveChoice->setObjectName(QStringLiteral("saveChoice"));
    m_folderButton = new QPushButton;
    m_folderButton->setObjectName(QStringLiteral("folderButton"));
    m_folderButton->setToolTip(QStringLiteral("Choose the folder"));
    m_copyChoice = new QRadioButton(QStringLiteral("Copy to the clipboard"));
    m_copyChoice->setObjectName(QStringLiteral("copyChoice"));
    auto* saveRow = new QHBoxLayout;
    saveRow->addWidget(m_saveChoice);
    saveRow->addWidget(m_folderButton, 1);
    grid->addWidget(new QLabel(QStringLiteral("Destination")), 4, 0, Qt::AlignRight | Qt::AlignVCenter);
    grid->addLayout(saveRow, 4, 1);
    grid->addWidget(m_copyChoice, 5, 1);
    grid->setColumnStretch(1, 1);

    // The share as it runs.
    m_checklist = new QWidget;
    m_checklist->setObjectName(QStringLiteral("checklist"));
    m_stageRows = new QVBoxLayout(m_checklist);
    m_stageRows->setContentsMargins(0, 0, 0, 0);
    m_stageRows->setSpacing(4);
    m_checklist->hide();
    m_bar = new QProgressBar;
    m_bar->setObjectName(QStringLiteral("progress"));
    m_bar->setRange(0, 1000);
    m_bar->setTextVisible(false);
    m_bar->hide();
    m_footline = secondaryLabel();
    m_footline->setObjectName(QStringLiteral("footline"));

    m_outcomeText = new QLabel;
    m_outcomeText->setObjectName(QStringLiteral("outcome"));
    m_outcomeText->setWordWrap(true);
    m_outcomeText->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_outcomeText->hide();

    m_open = new QPushButton(QStringLiteral("Open"));
    m_open->setObjectName(QStringLiteral("openResult"));
    m_show = new QPushButton(QStringLiteral("Show in Folder"));
    m_show->setObjectName(QStringLiteral("showResult"));
    m_stop = new QPushButton(QStringLiteral("Stop"));
    m_stop->setObjectName(QStringLiteral("stop"));
    m_share = new QPushButton(QStringLiteral("Share"));
    m_share->setObjectName(QStringLiteral("share"));
    m_share->setDefault(true);
    for (auto* b : {m_open, m_show, m_stop})
        b->hide();
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(m_open);
    buttons->addWidget(m_show);
    buttons->addStretch();
    buttons->addWidget(m_stop);
    buttons->addWidget(m_share);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 16, 20, 16);
    layout->setSpacing(12);
    layout->addWidget(title);
    layout->addWidget(m_choices);
    layout->addWidget(m_checklist);
    layout->addWidget(m_bar);
    layout->addWidget(m_footline);
    layout->addWidget(m_outcomeText);
    layout->addStretch();
    layout->addLayout(buttons);

    connect(m_kinds, &QButtonGroup::idClicked, this, [this](int id) { setKind(static_cast<ShareKind>(id)); });
    connect(m_qualities, &QButtonGroup::idClicked, this, [this](int id) { setQuality(static_cast<ShareQuality>(id)); });
    connect(m_saveChoice, &QRadioButton::clicked, this, [this] { setFolder(m_folder); });
    connect(m_copyChoice, &QRadioButton::clicked, this, &ShareSheet::setCopy);
    connect(m_folderButton, &QPushButton::clicked, this, &ShareSheet::chooseFolder);
    connect(m_share, &QPushButton::clicked, this, &ShareSheet::start);
    connect(m_stop, &QPushButton::clicked, this, &ShareSheet::stop);
    connect(m_open, &QPushButton::clicked, this, [this] {
        if (m_outcome)
            if (auto opened = openInDesktop(m_outcome->url); !opened)
                m_outcomeText->setText(QString::fromStdString(opened.error().sentence));
    });
    connect(m_show, &QPushButton::clicked, this, [this] {
        if (m_outcome)
            if (auto shown = showInFileManager(m_outcome->url); !shown)
                m_outcomeText->setText(QString::fromStdString(shown.error().sentence));
    });

    m_engine->onProgress = [this](const ShareProgress& p) {
        QMetaObject::invokeMethod(this, [this, p] { apply(p); }, Qt::QueuedConnection);
    };

    // The recorded size and the look decide the output size shown under the qualities.
    m_reader = std::thread([this, movie = m_movie] {
        auto read = SharePlim::read(movie);
        std::shared_ptr<const SharePlim> plim = read ? std::make_shared<const SharePlim>(std::move(*read)) : nullptr;
        QString problem = read ? QString() : QString::fromStdString(read.error().sentence);
        QMetaObject::invokeMethod(this, [this, plim, problem] {
            m_plim = plim;
            if (!plim) {
                m_outcomeText->setText(problem);
                m_outcomeText->show();
            }
            refreshChoices();
        }, Qt::QueuedConnection);
    });

    m_saveChoice->setChecked(true);
    refreshChoices();
}

ShareSheet::~ShareSheet()
{
    m_engine->stop();
    if (m_reader.joinable())
        m_reader.join();
    if (m_thread.joinable())
        m_thread.join();
}

void ShareSheet::setKind(ShareKind kind)
{
    m_kind = kind;
    refreshChoices();
}

void ShareSheet::setQuality(ShareQuality quality)
{
    m_quality = quality;
    refreshChoices();
}

void ShareSheet::setFolder(const fs::path& folder)
{
    m_folder = folder;
    m_copy = false;
    refreshChoices();
}

void ShareSheet::setCopy()
{
    m_copy = true;
    refreshChoices();
}

void ShareSheet::chooseFolder()
{
    const QString chosen = QFileDialog::getExistingDirectory(this, QStringLiteral("Share into"), toQString(m_folder));
    if (!chosen.isEmpty())
        setFolder(toPath(chosen));
}

void ShareSheet::refreshChoices()
{
    m_kinds->button(static_cast<int>(m_kind))->setChecked(true);
    m_qualities->button(static_cast<int>(m_quality))->setChecked(true);
    for (auto q : {ShareQuality::p720, ShareQuality::p1080, ShareQuality::p4K}) {
        auto* button = m_qualities->button(static_cast<int>(q));
        button->setText(QString::fromStdString(std::string(label(q, m_kind))));
        button->setEnabled(m_kind != ShareKind::original);
    }
    QString format;
    std::optional<std::string> note;
    if (m_kind == ShareKind::original) {
        format = QStringLiteral("The recording as it was recorded, untouched: %1")
                     .arg(QString::fromStdString(m_movie.filename().string()));
    } else if (m_plim) {
        StagingJob job = m_plim->job;
        job.quality = static_cast<RenderRules::Quality>(shortSide(m_quality));
        ShareRender::prepare(job, m_kind);
        const Size recorded{double(m_plim->info.width), double(m_plim->info.height)};
        const auto canvas = StagingEngine::canvas(job, recorded);
        format = QString::fromStdString(ShareOptions::kindFormat(m_kind, {double(canvas.width), double(canvas.height)}));
        note = ShareOptions::enlargementNote(m_kind, m_quality, recorded);
    }
    m_format->setText(format);
    m_note->setText(note ? QString::fromStdString(*note) : QString());
    m_note->setVisible(note.has_value());
    fitHeight();

    m_saveChoice->setChecked(!m_copy);
    m_copyChoice->setChecked(m_copy);
    m_folderButton->setText(fontMetrics().elidedText(toQString(m_folder), Qt::ElideMiddle, 300));
    m_folderButton->setEnabled(!m_copy);
    m_share->setText(m_copy ? QStringLiteral("Copy") : QStringLiteral("Save"));
}

void ShareSheet::fitHeight()
{
    // Wrapped lines ask for more height once their text is known.
    layout()->activate();
    const int wanted = layout()->totalHeightForWidth(width());
    if (wanted > height())
        resize(width(), wanted);
}

void ShareSheet::start()
{
    if (m_thread.joinable()) {
        if (!m_outcome)
            return;
        m_thread.join();
    }
    std::error_code ec;
    if (!m_copy && !fs::is_directory(m_folder, ec)) {
        m_outcomeText->setText(QStringLiteral("There is no folder at %1. Nothing was saved; choose a folder that exists.")
                                   .arg(toQString(m_folder)));
        m_outcomeText->show();
        return;
    }
    if (!m_copy)
        (void)m_settings.setValue(folderKey, m_folder.string()); // only a default for next time
    m_outcome.reset();
    m_outcomeText->hide();
    m_open->hide();
    m_show->hide();
    m_choices->setEnabled(false);
    m_share->setEnabled(false);
    m_stop->show();
    m_stop->setEnabled(true);
    m_checklist->show();
    m_bar->show();
    m_bar->setValue(0);
    m_footline->show();
    apply(ShareProgress::initial(m_kind == ShareKind::original));
    const ShareDestination to = m_copy ? ShareDestination::copy() : ShareDestination::save(m_folder);
    m_thread = std::thread([this, kind = m_kind, quality = m_quality, to] {
        ShareOutcome outcome = m_engine->share(m_movie, kind, quality, to);
        QMetaObject::invokeMethod(this, [this, outcome] { finished(outcome); }, Qt::QueuedConnection);
    });
}

void ShareSheet::stop()
{
    m_engine->stop();
    m_stop->setEnabled(false);
}

void ShareSheet::apply(const ShareProgress& progress)
{
    // One row a stage: its mark, title and detail.
    while (m_stageRows->count() < int(progress.stages.size())) {
        auto* row = new QWidget;
        auto* line = new QHBoxLayout(row);
        line->setContentsMargins(0, 0, 0, 0);
        auto* mark = new QLabel;
        mark->setFixedWidth(18);
        mark->setObjectName(QStringLiteral("mark"));
        auto* title = new QLabel;
        title->setObjectName(QStringLiteral("stageTitle"));
        auto* detail = secondaryLabel();
        detail->setObjectName(QStringLiteral("stageDetail"));
        detail->setWordWrap(false);
        line->addWidget(mark);
        line->addWidget(title);
        line->addWidget(detail, 1);
        m_stageRows->addWidget(row);
    }
    for (int i = 0; i < m_stageRows->count(); ++i) {
        QWidget* row = m_stageRows->itemAt(i)->widget();
        // Copying the original is only listed for the original's share.
        const bool shown = i < int(progress.stages.size())
            && !(progress.stages[size_t(i)].skips && progress.stages[size_t(i)].id == ShareStage::ID::copyOriginal);
        row->setVisible(shown);
        if (!shown)
            continue;
        ShareStage stage = progress.stages[size_t(i)];
        // A share that ended early leaves the stages it was in without an end of their own.
        if (m_outcome && m_outcome->kind != ShareOutcome::Kind::finished && stage.state == ShareStage::State::now)
            stage.state = ShareStage::State::failed;
        row->setObjectName(QStringLiteral("stage_") + QString::fromUtf8(ShareStage::name(stage.id).data()));
        auto* title = row->findChild<QLabel*>(QStringLiteral("stageTitle"));
        QFont font = title->font();
        font.setStrikeOut(stage.skips);
        font.setBold(stage.state == ShareStage::State::now);
        title->setFont(font);
        title->setText(QString::fromStdString(stage.title));
        title->setEnabled(stage.state != ShareStage::State::waiting && !stage.skips);
        row->findChild<QLabel*>(QStringLiteral("mark"))->setText(mark(stage.state));
        row->findChild<QLabel*>(QStringLiteral("stageDetail"))->setText(QString::fromStdString(stage.detail));
    }
    m_bar->setValue(static_cast<int>(std::clamp(progress.fraction, 0.0, 1.0) * 1000));
    // The engine's line: the size it makes, then the frames done and the time left.
    m_footline->setText(QString::fromStdString(progress.footline));
    fitHeight();
}

void ShareSheet::finished(const ShareOutcome& outcome)
{
    m_outcome = outcome;
    apply(m_engine->progress());
    m_footline->hide();
    QString text = outcome.kind == ShareOutcome::Kind::finished ? QString::fromStdString(outcome.note.value_or(""))
                                                                : QString::fromStdString(outcome.sentence);
    for (const auto& notice : outcome.notices)
        text += QStringLiteral("\n") + QString::fromStdString(notice);
    m_outcomeText->setText(text);
    m_outcomeText->show();
    fitHeight();
    const bool done = outcome.kind == ShareOutcome::Kind::finished;
    m_open->setVisible(done);
    m_show->setVisible(done);
    m_stop->hide();
    m_choices->setEnabled(true);
    m_share->setEnabled(true);
    m_share->setText(done ? QStringLiteral("Share Again") : m_copy ? QStringLiteral("Copy") : QStringLiteral("Save"));
    m_share->setDefault(!done);
    if (onFinished)
        onFinished(outcome);
}

void ShareSheet::closeEvent(QCloseEvent* event)
{
    m_engine->stop();
    QWidget::closeEvent(event);
}

} // namespace plim
