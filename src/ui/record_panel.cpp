#include "ui/record_panel.h"

#include "app/recording_controller.h"
#include "base/settings.h"
#include "capture/desktop.h"
#include "capture/sound_source.h"
#include "ui/capture_choices.h"
#include "ui/desktop_services.h"
#include "ui/labels.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QGridLayout>
#include <QGroupBox>
#include <QGuiApplication>
#include <QHash>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QThreadPool>
#include <QTimer>
#include <QVBoxLayout>

#include <cmath>
#include <mutex>

namespace plim {

struct RecordPanel::LatestPicture {
    std::mutex lock;
    QImage picture; // null once shown
};

namespace {

constexpr int thumbWidth = 160;
constexpr int frameRole = Qt::UserRole + 1; // a display's frame in global points

// The picture of a display as it looks now, small.
// The last thumbnail of each display, by its frame, so a panel opens with pictures at once.
QHash<QString, QImage>& lastThumbnails()
{
    static QHash<QString, QImage> thumbnails;
    return thumbnails;
}

QString frameKey(const QRectF& f) { return QStringLiteral("%1,%2,%3,%4").arg(f.x()).arg(f.y()).arg(f.width()).arg(f.height()); }

QIcon thumbnailIcon(const QRectF& frame)
{
    QImage picture = lastThumbnails().value(frameKey(frame));
    if (picture.isNull()) {
        picture = QImage(thumbWidth, thumbWidth * 9 / 16, QImage::Format_RGB32);
        picture.fill(QColor(0x2b, 0x2d, 0x33));
    }
    return QIcon(QPixmap::fromImage(picture));
}

// A device combo: the default, then each device by its description, and the remembered
// device even while it is not plugged in.
void fillDevices(QComboBox* box, const QString& defaultText, const std::optional<std::string>& remembered,
    const std::vector<SoundDevice>& found)
{
    box->clear();
    box->addItem(defaultText, QString());
    for (const SoundDevice& device : found)
        box->addItem(QString::fromStdString(device.description), QString::fromStdString(device.name));
    if (!remembered)
        return;
    const QString name = QString::fromStdString(*remembered);
    if (box->findData(name) < 0)
        box->addItem(name + QStringLiteral(" (not connected)"), name);
    box->setCurrentIndex(box->findData(name));
}

std::optional<std::string> chosenDevice(const QComboBox* box)
{
    const QString name = box->currentData().toString();
    return name.isEmpty() ? std::nullopt : std::optional(name.toStdString());
}

// What the sound server lists; nothing when it does not answer (the tooltip says why).
std::vector<SoundDevice> soundDevices(SoundSource::Kind kind, QComboBox* box)
{
    auto devices = listPulseSoundDevices(kind);
    box->setToolTip(devices ? QString() : QString::fromStdString(devices.error().sentence));
    return devices ? *devices : std::vector<SoundDevice>{};
}

} // namespace

RecordPanel::RecordPanel(SettingsStore& settings, fs::path libraryFolder, QWidget* parent)
    : QWidget(parent), m_settings(settings), m_folder(std::move(libraryFolder)), m_choice(RecordChoice::load(settings))
{
    setObjectName(QStringLiteral("recordPanel"));
    setWindowTitle(QStringLiteral("Record"));
    setMinimumWidth(520);

    // What to record.
    m_subjects = new QButtonGroup(this);
    auto* displayChoice = new QRadioButton(QStringLiteral("A display"));
    displayChoice->setObjectName(QStringLiteral("subjectDisplay"));
    auto* windowChoice = new QRadioButton(QStringLiteral("A window"));
    windowChoice->setObjectName(QStringLiteral("subjectWindow"));
    auto* areaChoice = new QRadioButton(QStringLiteral("An area"));
    areaChoice->setObjectName(QStringLiteral("subjectArea"));
    m_subjects->addButton(displayChoice, int(RecordChoice::Subject::display));
    m_subjects->addButton(windowChoice, int(RecordChoice::Subject::window));
    m_subjects->addButton(areaChoice, int(RecordChoice::Subject::area));

    m_displays = new QListWidget;
    m_displays->setObjectName(QStringLiteral("displays"));
    m_displays->setViewMode(QListView::IconMode);
    m_displays->setIconSize(QSize(thumbWidth, thumbWidth * 9 / 16));
    m_displays->setMovement(QListView::Static);
    m_displays->setFlow(QListView::LeftToRight);
    m_displays->setWrapping(false);
    m_displays->setSpacing(4);
    m_displays->setFrameShape(QFrame::NoFrame);
    m_displays->viewport()->setAutoFillBackground(false);
    m_displays->setFixedHeight(thumbWidth * 9 / 16 + 36);
    m_windows = new QComboBox;
    m_windows->setObjectName(QStringLiteral("windows"));
    m_windows->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    m_windows->setMinimumContentsLength(30);
    auto* pickArea = new QPushButton(QStringLiteral("Choose Area…"));
    pickArea->setObjectName(QStringLiteral("pickArea"));
    m_areaText = new QLabel;
    m_areaText->setObjectName(QStringLiteral("areaText"));
    m_areaText->setForegroundRole(QPalette::PlaceholderText);

    auto* subject = new QGridLayout;
    subject->setHorizontalSpacing(12);
    subject->addWidget(displayChoice, 0, 0, Qt::AlignTop);
    subject->addWidget(m_displays, 0, 1);
    subject->addWidget(windowChoice, 1, 0);
    subject->addWidget(m_windows, 1, 1);
    subject->addWidget(areaChoice, 2, 0);
    auto* areaRow = new QHBoxLayout;
    areaRow->addWidget(pickArea);
    areaRow->addWidget(m_areaText, 1);
    subject->addLayout(areaRow, 2, 1);
    subject->setColumnStretch(1, 1);

    // The inputs.
    m_microphone = new QCheckBox(QStringLiteral("Microphone"));
    m_microphone->setObjectName(QStringLiteral("microphone"));
    m_microphoneDevice = new QComboBox;
    m_microphoneDevice->setObjectName(QStringLiteral("microphoneDevice"));
    m_meter = new QProgressBar;
    m_meter->setObjectName(QStringLiteral("level"));
    m_meter->setRange(0, 100);
    m_meter->setTextVisible(false);
    m_meter->setFixedWidth(110);
    m_meter->setFixedHeight(8);
    m_systemSound = new QCheckBox(QStringLiteral("Computer sound"));
    m_systemSound->setObjectName(QStringLiteral("systemSound"));
    m_systemSoundDevice = new QComboBox;
    m_systemSoundDevice->setObjectName(QStringLiteral("systemSoundDevice"));
    m_camera = new QCheckBox(QStringLiteral("Camera"));
    m_camera->setObjectName(QStringLiteral("camera"));
    m_cameraDevice = new QComboBox;
    m_cameraDevice->setObjectName(QStringLiteral("cameraDevice"));
    m_keys = new QCheckBox(QStringLiteral("Keys pressed"));
    m_keys->setObjectName(QStringLiteral("keys"));
    auto* inputs = new QGridLayout;
    inputs->setHorizontalSpacing(12);
    inputs->addWidget(m_microphone, 0, 0);
    inputs->addWidget(m_microphoneDevice, 0, 1);
    inputs->addWidget(m_meter, 0, 2);
    inputs->addWidget(m_systemSound, 1, 0);
    inputs->addWidget(m_systemSoundDevice, 1, 1);
    m_preview = new QLabel;
    m_preview->setObjectName(QStringLiteral("cameraPreview"));
    m_preview->setFixedSize(thumbWidth, thumbWidth * 9 / 16);
    m_preview->setAlignment(Qt::AlignCenter);
    m_preview->hide();
    inputs->addWidget(m_camera, 2, 0);
    inputs->addWidget(m_cameraDevice, 2, 1);
    inputs->addWidget(m_preview, 3, 1, Qt::AlignLeft);
    inputs->addWidget(m_keys, 4, 0);
    inputs->setColumnStretch(1, 1);

    // How.
    m_message = new QLabel;
    m_message->setObjectName(QStringLiteral("message"));
    m_message->setWordWrap(true);
    m_message->hide();
    auto problem = [this](const QString& sentence) { say(sentence); };
    m_countdown = new QSpinBox;
    m_countdown->setObjectName(QStringLiteral("countdown"));
    m_countdown->setRange(0, 10);
    m_countdown->setSuffix(QStringLiteral(" s"));
    auto* how = new QGridLayout;
    how->setHorizontalSpacing(12);
    how->addWidget(new QLabel(QStringLiteral("Quality")), 0, 0);
    how->addWidget(makeQualityBox(settings, problem), 0, 1);
    how->addWidget(new QLabel(QStringLiteral("Frame rate")), 1, 0);
    how->addWidget(makeFrameRateBox(settings, problem), 1, 1);
    how->addWidget(new QLabel(QStringLiteral("Countdown")), 2, 0);
    how->addWidget(m_countdown, 2, 1, Qt::AlignLeft);
    how->setColumnStretch(2, 1);

    m_preflight = new QLabel;
    m_preflight->setObjectName(QStringLiteral("preflight"));
    m_preflight->setWordWrap(true);
    m_preflight->setStyleSheet(QStringLiteral("color: #b3261e;"));
    m_preflight->hide();
    m_record = new QPushButton(QStringLiteral("Record"));
    m_record->setObjectName(QStringLiteral("record"));
    m_record->setDefault(true);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 16, 20, 16);
    layout->setSpacing(10);
    layout->addWidget(headingLabel(QStringLiteral("Record")));
    layout->addLayout(subject);
    layout->addSpacing(4);
    layout->addWidget(headingLabel(QStringLiteral("Inputs")));
    layout->addLayout(inputs);
    layout->addSpacing(4);
    layout->addWidget(headingLabel(QStringLiteral("Recording")));
    layout->addLayout(how);
    layout->addWidget(m_preflight);
    layout->addWidget(m_message);
    layout->addStretch();
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(m_record);
    layout->addLayout(buttons);

    // The last choice.
    m_subjects->button(int(m_choice.subject))->setChecked(true);
    m_microphone->setChecked(m_choice.microphone);
    m_systemSound->setChecked(m_choice.systemSound);
    m_camera->setChecked(m_choice.camera);
    m_keys->setChecked(m_choice.keys);
    m_countdown->setValue(m_choice.countdownSeconds);
    fillDevices(m_microphoneDevice, QStringLiteral("Default microphone"), m_choice.microphoneDevice,
        soundDevices(SoundSource::Kind::microphone, m_microphoneDevice));
    fillDevices(m_systemSoundDevice, QStringLiteral("Default output"), m_choice.systemSoundDevice,
        soundDevices(SoundSource::Kind::systemSound, m_systemSoundDevice));
    std::vector<SoundDevice> cameras;
    for (const QString& name : QDir(QStringLiteral("/dev")).entryList({QStringLiteral("video*")}, QDir::System, QDir::Name))
        cameras.push_back({"/dev/" + name.toStdString(), "/dev/" + name.toStdString()});
    fillDevices(m_cameraDevice, QStringLiteral("Default camera"), m_choice.cameraDevice, cameras);
    if (m_choice.area)
        setArea(*m_choice.area);
    else
        m_areaText->setText(QStringLiteral("No area chosen yet"));

    connect(pickArea, &QPushButton::clicked, this, [this] {
        if (onPickArea)
            onPickArea();
    });
    connect(m_displays, &QListWidget::itemClicked, displayChoice, [displayChoice] { displayChoice->setChecked(true); });
    connect(m_windows, &QComboBox::activated, windowChoice, [windowChoice] { windowChoice->setChecked(true); });
    connect(m_microphone, &QCheckBox::toggled, this, [this](bool on) { listenToMicrophone(on && isVisible()); });
    connect(m_microphoneDevice, &QComboBox::currentIndexChanged, this, [this] {
        if (m_listening)
            listenToMicrophone(true); // again, on the device now chosen
    });
    connect(m_camera, &QCheckBox::toggled, this, [this](bool on) { watchCamera(on && isVisible()); });
    connect(m_cameraDevice, &QComboBox::currentIndexChanged, this, [this] {
        if (m_watching)
            watchCamera(true); // again, on the device now chosen
    });
    m_previewTimer = new QTimer(this);
    m_previewTimer->setInterval(66);
    connect(m_previewTimer, &QTimer::timeout, this, [this] {
        std::lock_guard lock(m_latest->lock);
        if (!m_latest->picture.isNull())
            m_preview->setPixmap(QPixmap::fromImage(std::exchange(m_latest->picture, QImage())));
    });
    connect(m_record, &QPushButton::clicked, this, &RecordPanel::record);
    m_meterTimer = new QTimer(this);
    m_meterTimer->setInterval(50);
    connect(m_meterTimer, &QTimer::timeout, this, &RecordPanel::updateMeter);
    // The displays' pictures follow what they show while the panel is open.
    m_thumbTimer = new QTimer(this);
    m_thumbTimer->setInterval(2000);
    connect(m_thumbTimer, &QTimer::timeout, this, &RecordPanel::updateThumbnails);

    if (auto desktop = Desktop::create())
        m_desktop = std::move(*desktop);
    else
        m_desktopProblem = QString::fromStdString(desktop.error().sentence);
    refresh();
}

RecordPanel::~RecordPanel()
{
    listenToMicrophone(false);
    watchCamera(false);
}

void RecordPanel::refresh()
{
    // What the user has picked so far stays picked.
    const RecordChoice picked = m_displays->count() > 0 ? choice() : m_choice;
    m_displays->clear();
    m_windows->clear();
    if (m_desktop) {
        for (const DesktopDisplay& d : m_desktop->displays()) {
            auto* item = new QListWidgetItem(thumbnailIcon(QRectF(d.frame.x, d.frame.y, d.frame.width, d.frame.height)),
                QStringLiteral("%1 · %2 × %3").arg(QString::fromStdString(d.name)).arg(d.frame.width).arg(d.frame.height));
            item->setData(Qt::UserRole, d.primary ? QString() : QString::fromStdString(d.name));
            item->setData(frameRole, QRectF(d.frame.x, d.frame.y, d.frame.width, d.frame.height));
            m_displays->addItem(item);
            if ((picked.display.empty() && d.primary) || picked.display == d.name)
                m_displays->setCurrentItem(item);
        }
        if (!m_displays->currentItem() && m_displays->count() > 0)
            m_displays->setCurrentRow(0);
        for (const DesktopWindow& w : m_desktop->windows()) {
            if (w.title.empty())
                continue;
            QIcon icon;
            if (auto picture = m_desktop->windowIcon(w.id, 32))
                icon = QIcon(QPixmap::fromImage(toQImage(*picture)));
            m_windows->addItem(icon, QString::fromStdString(w.title), QVariant::fromValue(uint(w.id)));
            if (w.id == picked.window)
                m_windows->setCurrentIndex(m_windows->count() - 1);
        }
    }
    if (m_windows->count() == 0)
        m_windows->addItem(QStringLiteral("No windows to record"), QVariant::fromValue(0u));

    QStringList lines;
    if (!m_desktopProblem.isEmpty())
        lines << m_desktopProblem;
    for (const auto& line : RecordingController::preflightBlockingLines(std::nullopt, m_folder))
        if (!lines.contains(QString::fromStdString(line)))
            lines << QString::fromStdString(line);
    m_preflight->setText(lines.join(QLatin1Char('\n')));
    m_preflight->setVisible(!lines.isEmpty());
    m_record->setEnabled(lines.isEmpty());
}

void RecordPanel::updateThumbnails()
{
    if (!m_desktop || m_thumbsInFlight || m_displays->count() == 0)
        return;
    std::vector<QRectF> frames;
    for (int i = 0; i < m_displays->count(); ++i)
        frames.push_back(m_displays->item(i)->data(frameRole).toRectF());
    m_thumbsInFlight = true;
    QPointer<RecordPanel> guard(this);
    QThreadPool::globalInstance()->start([guard, desktop = m_desktop, frames = std::move(frames)] {
        std::vector<std::pair<QRectF, QImage>> taken;
        for (const QRectF& f : frames)
            if (auto picture = desktop->picture(Rect{f.x(), f.y(), f.width(), f.height()}))
                taken.emplace_back(f, toQImage(*picture).scaledToWidth(thumbWidth, Qt::SmoothTransformation));
        QMetaObject::invokeMethod(qApp, [guard, taken = std::move(taken)] {
            for (const auto& [frame, picture] : taken)
                lastThumbnails().insert(frameKey(frame), picture);
            if (!guard)
                return;
            guard->m_thumbsInFlight = false;
            for (int i = 0; i < guard->m_displays->count(); ++i)
                guard->m_displays->item(i)->setIcon(thumbnailIcon(guard->m_displays->item(i)->data(frameRole).toRectF()));
        });
    });
}

void RecordPanel::setArea(const Rect& area)
{
    m_choice.area = area;
    m_subjects->button(int(RecordChoice::Subject::area))->setChecked(true);
    m_areaText->setText(QStringLiteral("%1 × %2 at %3, %4").arg(area.width).arg(area.height).arg(area.x).arg(area.y));
}

RecordChoice RecordPanel::choice() const
{
    RecordChoice c = m_choice;
    c.subject = static_cast<RecordChoice::Subject>(std::max(0, m_subjects->checkedId()));
    if (auto* item = m_displays->currentItem())
        c.display = item->data(Qt::UserRole).toString().toStdString();
    c.window = m_windows->currentData().toUInt();
    c.microphone = m_microphone->isChecked();
    c.microphoneDevice = chosenDevice(m_microphoneDevice);
    c.systemSound = m_systemSound->isChecked();
    c.systemSoundDevice = chosenDevice(m_systemSoundDevice);
    c.camera = m_camera->isChecked();
    c.cameraDevice = chosenDevice(m_cameraDevice);
    c.keys = m_keys->isChecked();
    c.countdownSeconds = m_countdown->value();
    return c;
}

void RecordPanel::record()
{
    refresh();
    if (!m_record->isEnabled())
        return;
    const RecordChoice c = choice();
    if (c.subject == RecordChoice::Subject::window && c.window == 0) {
        say(QStringLiteral("There is no window chosen to record. Pick one from the list, or record a display or an area."));
        return;
    }
    if (c.subject == RecordChoice::Subject::area && !c.area) {
        say(QStringLiteral("No area is chosen yet. Choose one with Choose Area…, or record a display or a window."));
        return;
    }
    m_choice = c;
    if (auto saved = c.save(m_settings); !saved)
        say(QString::fromStdString(saved.error().sentence));
    listenToMicrophone(false);
    watchCamera(false);
    if (onRecord)
        onRecord(c.captureSettings(m_settings), c.countdownSeconds);
}

void RecordPanel::say(const QString& sentence)
{
    m_message->setText(sentence);
    m_message->setVisible(!sentence.isEmpty());
}

void RecordPanel::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    refresh();
    listenToMicrophone(m_microphone->isChecked());
    watchCamera(m_camera->isChecked());
    updateThumbnails();
    m_thumbTimer->start();
}

void RecordPanel::hideEvent(QHideEvent* event)
{
    listenToMicrophone(false);
    watchCamera(false);
    m_thumbTimer->stop();
    QWidget::hideEvent(event);
}

void RecordPanel::listenToMicrophone(bool on)
{
    if (m_listening) {
        m_listening->stop();
        m_listening.reset();
    }
    m_meterTimer->stop();
    m_meter->setValue(0);
    m_meter->setEnabled(on);
    if (!on)
        return;
    auto source = createPulseSoundSource(SoundSource::Kind::microphone, chosenDevice(m_microphoneDevice));
    if (!source) {
        m_meter->setEnabled(false);
        m_meter->setToolTip(QString::fromStdString(source.error().sentence));
        return;
    }
    auto peak = m_peak;
    auto started = (*source)->start([peak](SoundBlock&& block) {
        float loudest = 0;
        for (float s : block.samples)
            loudest = std::max(loudest, std::fabs(s));
        float seen = peak->load();
        while (loudest > seen && !peak->compare_exchange_weak(seen, loudest)) {
        }
    });
    if (!started) {
        m_meter->setEnabled(false);
        m_meter->setToolTip(QString::fromStdString(started.error().sentence));
        return;
    }
    m_meter->setToolTip(QString::fromStdString((*source)->deviceName()));
    m_listening = std::move(*source);
    m_meterTimer->start();
}

void RecordPanel::watchCamera(bool on)
{
    if (m_watching) {
        m_watching->stop();
        m_watching.reset();
    }
    m_previewTimer->stop();
    m_preview->clear();
    m_preview->setVisible(on);
    if (!on) {
        // The preview's room goes with it.
        if (isVisible())
            QTimer::singleShot(0, this, [this] { adjustSize(); });
        return;
    }
    auto camera = openCamera ? openCamera(chosenDevice(m_cameraDevice)) : fail("There is no camera to show.");
    if (!camera) {
        m_preview->hide();
        say(QString::fromStdString(camera.error().sentence));
        return;
    }
    m_latest = std::make_shared<LatestPicture>();
    auto started = (*camera)->start([latest = m_latest](CapturedFrame&& frame) {
        QImage small = toQImage(frame.image).scaled(thumbWidth, thumbWidth * 9 / 16, Qt::KeepAspectRatio, Qt::FastTransformation);
        std::lock_guard lock(latest->lock);
        latest->picture = std::move(small);
    });
    if (!started) {
        m_preview->hide();
        say(QString::fromStdString(started.error().sentence));
        return;
    }
    m_watching = std::move(*camera);
    m_previewTimer->start();
}

void RecordPanel::updateMeter()
{
    // The loudest sample since the last tick, in decibels over the bottom 60 dB.
    const float loudest = m_peak->exchange(0.0f);
    const double db = loudest > 0 ? 20 * std::log10(loudest) : -60;
    const int level = int(std::clamp((db + 60) / 60 * 100, 0.0, 100.0));
    m_meter->setValue(std::max(level, m_meter->value() - 6));
}

} // namespace plim
