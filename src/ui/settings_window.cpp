#include "ui/settings_window.h"

#include "app/control_verbs.h"
#include "app/ctl_captions_model.h"
#include "app/record_choice.h"
#include "base/json.h"
#include "base/settings.h"
#include "library/look_store.h"
#include "library/plims_folder_move.h"
#include "ui/better_captions_panel.h"
#include "ui/capture_choices.h"
#include "ui/desktop_icons.h"
#include "ui/desktop_services.h"
#include "ui/labels.h"

#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QFormLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

namespace plim {

bool SettingsWindow::desktopIconsCanHide()
{
    return DesktopIcons::present() != DesktopIcons::Desktop::none;
}

SettingsWindow::SettingsWindow(SettingsStore& settings, StorageRoot root, fs::path looksFile, QWidget* parent)
    : QWidget(parent), m_settings(settings), m_root(std::move(root)), m_looksFile(std::move(looksFile))
{
    setObjectName(QStringLiteral("settings"));
    setWindowTitle(QStringLiteral("Plim Settings"));
    setMinimumWidth(560);
    auto problem = [this](const QString& sentence) { say(sentence); };

    // The library.
    m_folder = new QLabel;
    m_folder->setObjectName(QStringLiteral("libraryFolder"));
    m_folder->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto* show = new QPushButton(QStringLiteral("Show"));
    show->setObjectName(QStringLiteral("showLibrary"));
    connect(show, &QPushButton::clicked, this, &SettingsWindow::showLibrary);
    auto* folderRow = new QHBoxLayout;
    folderRow->addWidget(m_folder, 1);
    folderRow->addWidget(show);
    m_legacy = secondaryLabel(QString());
    m_legacy->setObjectName(QStringLiteral("legacyNote"));
    m_move = new QPushButton(QStringLiteral("Move to Videos/Plim"));
    m_move->setObjectName(QStringLiteral("moveLibrary"));
    connect(m_move, &QPushButton::clicked, this, &SettingsWindow::moveLibrary);
    auto* legacyRow = new QHBoxLayout;
    legacyRow->addWidget(m_legacy, 1);
    legacyRow->addWidget(m_move, 0, Qt::AlignTop);

    // Recording.
    auto* form = new QFormLayout;
    form->setLabelAlignment(Qt::AlignRight);
    form->setFieldGrowthPolicy(QFormLayout::FieldsStayAtSizeHint);
    form->addRow(QStringLiteral("Quality"), makeQualityBox(settings, problem));
    form->addRow(QStringLiteral("Frame rate"), makeFrameRateBox(settings, problem));
    auto* countdown = new QSpinBox;
    countdown->setObjectName(QStringLiteral("countdown"));
    countdown->setRange(0, 10);
    countdown->setSuffix(QStringLiteral(" s"));
    countdown->setValue(RecordChoice::load(settings).countdownSeconds);
    connect(countdown, &QSpinBox::valueChanged, this, [this](int seconds) {
        RecordChoice choice = RecordChoice::load(m_settings);
        choice.countdownSeconds = seconds;
        if (auto saved = choice.save(m_settings); !saved)
            say(QString::fromStdString(saved.error().sentence));
    });
    form->addRow(QStringLiteral("Countdown"), countdown);

    auto* captions = new QCheckBox(QStringLiteral("Captions on new plims"));
    captions->setObjectName(QStringLiteral("captions"));
    {
        LookStore looks(m_looksFile);
        captions->setChecked(looks.newPlimLook().value_or(PlimLook{}).captions);
        if (looks.loadProblem()) {
            captions->setEnabled(false);
            captions->setToolTip(QString::fromStdString(*looks.loadProblem()));
        }
    }
    connect(captions, &QCheckBox::toggled, this, [this, captions](bool on) {
        LookStore looks(m_looksFile);
        PlimLook look = looks.newPlimLook().value_or(PlimLook{});
        look.captions = on;
        if (auto saved = looks.setNewPlimLook(look); !saved) {
            say(QString::fromStdString(saved.error().sentence));
            const QSignalBlocker block(captions);
            captions->setChecked(!on);
        }
    });
    form->addRow(QString(), captions);

    auto* hideIcons = new QCheckBox(QStringLiteral("Hide desktop icons while recording"));
    hideIcons->setObjectName(QStringLiteral("hideIcons"));
    form->addRow(QString(), hideIcons);
    if (desktopIconsCanHide()) {
        hideIcons->setChecked(settings.boolean(hideIconsKey, false));
        connect(hideIcons, &QCheckBox::toggled, this, [this](bool on) {
            if (auto saved = m_settings.setValue(hideIconsKey, on); !saved)
                say(QString::fromStdString(saved.error().sentence));
        });
    } else {
        hideIcons->setEnabled(false);
        auto* note = secondaryLabel(QStringLiteral("Not available here: this desktop offers no way for Plim to hide its icons."));
        note->setObjectName(QStringLiteral("hideIconsNote"));
        note->setWordWrap(false); // a wrapped label keeps its one-line height in this form
        form->addRow(QString(), note);
    }

    // The control verbs.
    auto* verbs = new QFormLayout;
    verbs->setLabelAlignment(Qt::AlignRight);
    for (const ShortcutVerb& verb : controlVerbs()) {
        auto* command = new QLineEdit(QStringLiteral("plim ") + QString::fromUtf8(verb.option));
        command->setObjectName(QStringLiteral("verb_") + QString::fromUtf8(verb.action));
        command->setReadOnly(true);
        command->setToolTip(QString::fromUtf8(verb.description));
        command->setMinimumWidth(170);
        auto* copy = new QPushButton(QStringLiteral("Copy"));
        copy->setObjectName(QStringLiteral("copy_") + QString::fromUtf8(verb.action));
        connect(copy, &QPushButton::clicked, this, [command] { QGuiApplication::clipboard()->setText(command->text()); });
        auto* row = new QHBoxLayout;
        row->addWidget(command, 1);
        row->addWidget(copy);
        auto* label = new QLabel(QString::fromUtf8(verb.description));
        verbs->addRow(label, row);
    }

    m_message = new QLabel;
    m_message->setObjectName(QStringLiteral("message"));
    m_message->setWordWrap(true);
    m_message->hide();

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 16, 20, 16);
    layout->setSpacing(10);
    layout->addWidget(headingLabel(QStringLiteral("Library")));
    layout->addLayout(folderRow);
    layout->addLayout(legacyRow);
    layout->addSpacing(6);
    layout->addWidget(headingLabel(QStringLiteral("Recording")));
    layout->addLayout(form);
    layout->addSpacing(6);
    layout->addWidget(headingLabel(QStringLiteral("Better captions")));
    BetterCaptionsPanel::Setup captionModel;
    captionModel.services = captionModelServices;
    layout->addWidget(new BetterCaptionsPanel(settings, std::move(captionModel)));
    layout->addSpacing(6);
    layout->addWidget(headingLabel(QStringLiteral("Shortcuts")));
    layout->addWidget(secondaryLabel(QStringLiteral(
        "Bind these commands to keys in your desktop's keyboard shortcut settings; each reaches the running Plim.")));
    layout->addLayout(verbs);
    layout->addWidget(m_message);
    layout->addStretch();

    refreshLibrary();
}

void SettingsWindow::showLibrary()
{
    if (auto shown = showInFileManager(m_root.folder()); !shown)
        say(QString::fromStdString(shown.error().sentence));
}

void SettingsWindow::refreshLibrary()
{
    m_folder->setText(toQString(m_root.folder()));
    const bool legacy = PlimsFolderMove::legacyIsTheLibrary(m_root);
    m_legacy->setText(legacy ? QStringLiteral("Your plims are still in the older folder Videos/Plims. Plim can rename it to "
                                              "Videos/Plim and leave a link at the old name.")
                             : QString());
    m_legacy->setVisible(legacy);
    m_move->setVisible(legacy);
}

void SettingsWindow::moveLibrary()
{
    const auto outcome = PlimsFolderMove::run(m_root);
    if (outcome.libraryMoved()) {
        m_root.plimsFolderName = StorageRoot::currentName;
        say(outcome.sentence.empty() ? QStringLiteral("Your library is now %1.").arg(toQString(m_root.folder()))
                                     : QString::fromStdString(outcome.sentence));
        if (onLibraryMoved)
            onLibraryMoved(m_root.folder());
    } else {
        say(outcome.sentence.empty() ? QStringLiteral("There was nothing to move; your library stays in %1.")
                                           .arg(toQString(m_root.folder()))
                                     : QString::fromStdString(outcome.sentence));
    }
    refreshLibrary();
}

void SettingsWindow::say(const QString& sentence)
{
    m_message->setText(sentence);
    m_message->setVisible(!sentence.isEmpty());
}

} // namespace plim
