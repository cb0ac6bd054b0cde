#include "ui/editor_window.h"

#include "app/voiceover_recorder.h"
#include "app/voiceover_take.h"
#include "base/clock.h"
#include "base/json.h"
#include "base/log.h"
#include "base/places.h"
#include "captions/caption_track.h"
#include "library/plim_document.h"
#include "library/storage_root.h"
#include "media/movie_reader.h"
#include "plan/edit_plan.h"
#include "plan/zoom_state.h"
#include "ui/caption_generator.h"
#include "ui/desktop_services.h"
#include "ui/editor_blur_overlay.h"
#include "ui/editor_media.h"
#include "ui/inspector.h"
#include "ui/preview_view.h"
#include "ui/staged_card.h"
#include "ui/timeline_view.h"

#include <QAction>
#include <QBoxLayout>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QFrame>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QPushButton>
#include <QShortcut>
#include <QSlider>
#include <QSplitter>
#include <QStackedWidget>
#include <QTimer>

#include <cmath>

namespace plim {

namespace {

// How long after the last change the edits are written.
constexpr int saveDelayMS = 700;

QString clock(double seconds)
{
    seconds = std::max(0.0, std::isfinite(seconds) ? seconds : 0.0);
    const int tenths = int(std::floor(seconds * 10));
    return QString("%1:%2.%3").arg(tenths / 600).arg((tenths / 10) % 60, 2, 10, QChar('0')).arg(tenths % 10);
}

// One line saying what the automatic edit did.
QString automaticSummary(const EditPlan& plan, double duration)
{
    QStringList parts;
    if (!plan.zooms.empty())
        parts << QString("%1 zoom%2 where you clicked").arg(plan.zooms.size()).arg(plan.zooms.size() == 1 ? "" : "s");
    if (!plan.activeSkips().empty())
        parts << QString("%1 stretch%2 of dead air sped up").arg(plan.activeSkips().size()).arg(plan.activeSkips().size() == 1 ? "" : "es");
    if (plan.trimIn.value_or(0) + (duration - plan.trimOut.value_or(duration)) > 0.3)
        parts << "ends trimmed";
    return parts.isEmpty() ? "The automatic edit: nothing needed editing." : "The automatic edit: " + parts.join(" · ") + ".";
}

QPushButton* toolButton(const QString& text, const QString& name, const QString& tip = {})
{
    auto* button = new QPushButton(text);
    button->setObjectName(name);
    button->setToolTip(tip);
    button->setFocusPolicy(Qt::NoFocus);
    return button;
}

const char* editorStyle = R"(
plim--EditorWindow { background: #17181c; }
QLabel { color: #d7dae0; }
QMenuBar { background: #1f2026; color: #d7dae0; }
QMenuBar::item:selected { background: #33353d; }
QPushButton { background: #2c2e36; color: #e4e6eb; border: 1px solid #3a3d46; border-radius: 6px; padding: 5px 12px; }
QPushButton:hover { background: #353843; }
QPushButton:checked { background: #5b4fe0; border-color: #7b6cf6; color: white; }
QPushButton:disabled { color: #6b6f7a; background: #24262c; }
QPushButton#share { background: #5b4fe0; border-color: #7b6cf6; color: white; font-weight: bold; }
QPushButton#play { min-width: 34px; font-size: 15px; }
QLabel#time { color: #f0f1f4; font-family: monospace; font-size: 13px; padding: 0 8px; }
QLabel#readOnlyBar { background: #4a3a12; color: #ffe3a3; border: 1px solid #7a5f1d; border-radius: 6px; padding: 8px 12px; }
QLabel#editorStatus { color: #9a9fab; }
plim--Inspector, QScrollArea, QWidget#inspectorContent { background: #1f2026; }
QFrame#inspectorSection { background: #26282f; border: 1px solid #30333b; border-radius: 8px; }
QCheckBox { color: #d7dae0; }
QComboBox, QLineEdit { background: #2c2e36; color: #e4e6eb; border: 1px solid #3a3d46; border-radius: 5px; padding: 3px 6px; }
QToolButton { border: 2px solid transparent; border-radius: 8px; padding: 1px; }
QToolButton:checked { border-color: #ffffff; }
QSplitter::handle { background: #17181c; }
)";

} // namespace

struct EditorWindow::Opened {
    PlimDocument::OpenResult result;
    MovieInfo info;
    std::optional<std::string> failure; // the movie could not be read at all
    PlimMoments moments;
    Decoded<std::optional<CaptionTrack>> captions; // the track a render of these edits shows
};

EditorWindow::EditorWindow(Opening opening, std::function<void(const std::filesystem::path&)> share,
    std::filesystem::path looks, QWidget* parent)
    : QWidget(parent), m_movie(std::move(opening.movie)), m_share(std::move(share)), m_looks(std::move(looks))
{
    setObjectName("editorWindow");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(QString::fromStdString(m_movie.stem().string()));
    setStyleSheet(editorStyle);
    m_saveTimer = new QTimer(this);
    m_saveTimer->setSingleShot(true);
    m_saveTimer->setInterval(saveDelayMS);
    connect(m_saveTimer, &QTimer::timeout, this, &EditorWindow::saveNow);

    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->setSpacing(0);

    // Menus.
    auto* menus = new QMenuBar;
    outer->setMenuBar(menus);
    QMenu* plimMenu = menus->addMenu("&Plim");
    QAction* shareAction = plimMenu->addAction("Share…", this, [this] {
        saveNow();
        if (m_share)
            m_share(m_movie);
    });
    shareAction->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_E));
    plimMenu->addAction("Show in Folder", this, [this] {
        if (auto shown = showInFileManager(m_movie); !shown)
            showStatus(QString::fromStdString(shown.error().sentence), true);
    });
    plimMenu->addSeparator();
    plimMenu->addAction("Close", QKeySequence::Close, this, &QWidget::close);
    QMenu* editMenu = menus->addMenu("&Edit");
    m_undo = editMenu->addAction("Undo", QKeySequence(Qt::CTRL | Qt::Key_Z), this, [this] {
        if (m_document && !m_readOnly)
            m_document->undo();
    });
    m_redo = editMenu->addAction("Redo", QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z), this, [this] {
        if (m_document && !m_readOnly)
            m_document->redo();
    });
    m_undo->setObjectName("undo");
    m_redo->setObjectName("redo");
    m_undo->setEnabled(false);
    m_redo->setEnabled(false);

    auto* body = new QWidget;
    auto* column = new QVBoxLayout(body);
    column->setContentsMargins(14, 10, 14, 8);
    column->setSpacing(8);

    m_readOnlyBar = new QLabel;
    m_readOnlyBar->setObjectName("readOnlyBar");
    m_readOnlyBar->setWordWrap(true);
    m_readOnlyBar->hide();
    column->addWidget(m_readOnlyBar);

    // The picture: the staged moment's card, then the preview.
    m_stage = new QStackedWidget;
    m_preview = new PreviewView;
    m_preview->setObjectName("preview");
    m_preview->setMinimumSize(480, 270);
    m_card = new StagedCard;
    m_stage->addWidget(m_preview);
    m_stage->addWidget(m_card);
    column->addWidget(m_stage, 1);

    // The transport row and the editing tools.
    auto* transport = new QHBoxLayout;
    transport->setSpacing(6);
    m_play = toolButton("▶", "play", "Play or pause (Space)");
    m_time = new QLabel(clock(0) + " / " + clock(0));
    m_time->setObjectName("time");
    m_raw = toolButton("Original", "showRecording", "Show the recording as it was recorded, without the edit");
    m_raw->setCheckable(true);
    auto* split = toolButton("Split", "split", "Cut the clip in two at the playhead");
    auto* zoom = toolButton("+ Zoom", "addZoom", "Add a zoom at the playhead");
    m_blurButton = toolButton("+ Blur", "addBlur", "Draw a blur box on the picture");
    m_blurButton->setCheckable(true);
    m_voiceButton = toolButton("● Voiceover", "recordVoiceover",
        "Record narration from the microphone from the playhead on while the plim plays (Esc drops the take)");
    m_headphones = new QCheckBox("Headphones");
    m_headphones->setObjectName("voiceoverHeadphones");
    m_headphones->setChecked(true);
    m_headphones->setFocusPolicy(Qt::NoFocus);
    m_headphones->setToolTip("With headphones on, the plim plays with its sound while you narrate. Without them it "
                             "plays picture only, so the microphone hears only you.");
    m_undoButton = toolButton("↶", "undoButton", "Undo (Ctrl+Z)");
    m_redoButton = toolButton("↷", "redoButton", "Redo (Ctrl+Shift+Z)");
    auto* shareButton = toolButton("Share…", "share");
    transport->addWidget(m_play);
    transport->addWidget(m_time);
    transport->addWidget(m_raw);
    transport->addStretch(1);
    transport->addWidget(split);
    transport->addWidget(zoom);
    transport->addWidget(m_blurButton);
    transport->addSpacing(10);
    transport->addWidget(m_voiceButton);
    transport->addWidget(m_headphones);
    transport->addSpacing(10);
    transport->addWidget(m_undoButton);
    transport->addWidget(m_redoButton);
    transport->addSpacing(10);
    transport->addWidget(shareButton);
    column->addLayout(transport);
    m_editingControls = {split, zoom, m_blurButton, m_voiceButton};
    for (QWidget* w : m_editingControls)
        w->setEnabled(false);
    m_undoButton->setEnabled(false);
    m_redoButton->setEnabled(false);

    m_timelineSlot = new QWidget;
    m_timelineSlot->setLayout(new QVBoxLayout);
    m_timelineSlot->layout()->setContentsMargins(0, 0, 0, 0);
    column->addWidget(m_timelineSlot);

    m_status = new QLabel;
    m_status->setObjectName("editorStatus");
    m_status->setWordWrap(true);
    column->addWidget(m_status);

    auto* splitter = new QSplitter(Qt::Horizontal);
    splitter->addWidget(body);
    m_inspectorSlot = new QWidget;
    m_inspectorSlot->setLayout(new QVBoxLayout);
    m_inspectorSlot->layout()->setContentsMargins(0, 0, 0, 0);
    m_inspectorSlot->setMinimumWidth(300);
    splitter->addWidget(m_inspectorSlot);
    splitter->setStretchFactor(0, 1);
    splitter->setStretchFactor(1, 0);
    splitter->setChildrenCollapsible(false);
    outer->addWidget(splitter, 1);

    connect(m_play, &QPushButton::clicked, m_preview, &PreviewView::togglePlay);
    connect(m_raw, &QPushButton::toggled, this, [this](bool raw) {
        m_preview->setShowsRecording(raw);
        m_raw->setText(raw ? "Original ✓" : "Original");
    });
    connect(m_undoButton, &QPushButton::clicked, m_undo, &QAction::trigger);
    connect(m_redoButton, &QPushButton::clicked, m_redo, &QAction::trigger);
    connect(shareButton, &QPushButton::clicked, shareAction, &QAction::trigger);
    connect(split, &QPushButton::clicked, this, [this] {
        if (!m_document)
            return;
        if (auto cut = m_document->splitClip(m_preview->position()); !cut)
            showStatus(QString::fromStdString(cut.error().sentence), true);
    });
    connect(zoom, &QPushButton::clicked, this, [this] {
        if (!m_document)
            return;
        if (auto id = m_document->addZoom(m_timeline->remap().input(m_preview->position()), 0.5, 0.5))
            m_timeline->select({TimelineView::ItemKind::zoom, *id});
    });
    connect(m_voiceButton, &QPushButton::clicked, this, [this] {
        if (isRecordingVoiceover())
            finishVoiceover();
        else
            startVoiceover();
    });
    m_voiceTimer = new QTimer(this);
    m_voiceTimer->setInterval(100);
    connect(m_voiceTimer, &QTimer::timeout, this, &EditorWindow::voiceoverTick);
    connect(m_blurButton, &QPushButton::toggled, this, [this](bool on) {
        if (m_overlay)
            m_overlay->armDrawing(on);
    });
    connect(m_preview, &PreviewView::playingChanged, this, [this](bool playing) { m_play->setText(playing ? "❚❚" : "▶"); });
    connect(m_preview, &PreviewView::positionChanged, this, [this](double t) {
        if (m_timeline)
            m_timeline->setPlayhead(t);
        if (m_overlay && m_timeline)
            m_overlay->setSourceTime(m_timeline->remap().input(t));
        updateTime();
    });
    connect(m_preview, &PreviewView::opened, this, [this](double) {
        m_previewOpened = true;
        if (m_cardLanded)
            m_stage->setCurrentWidget(m_preview);
        updateTime();
    });
    connect(m_preview, &PreviewView::failed, this, [this](const QString& sentence) { showStatus(sentence, true); });

    // The keys that drive the preview wherever the focus is (a text field keeps its letters).
    auto key = [this](QKeySequence sequence, auto action) {
        auto* shortcut = new QShortcut(sequence, this);
        connect(shortcut, &QShortcut::activated, this, action);
    };
    key(Qt::Key_Space, [this] { m_preview->togglePlay(); });
    key(Qt::Key_J, [this] { m_preview->shuttle(-1); });
    key(Qt::Key_K, [this] { m_preview->shuttle(0); });
    key(Qt::Key_L, [this] { m_preview->shuttle(1); });
    key(Qt::Key_Left, [this] { m_preview->step(-1); });
    key(Qt::Key_Right, [this] { m_preview->step(1); });
    key(Qt::Key_Escape, [this] {
        if (isRecordingVoiceover())
            cancelVoiceover();
    });

    if (opening.notice)
        showStatus(QString::fromStdString(*opening.notice), true);
    if (opening.stagedMoment && !opening.notice) {
        // The stop flow: the recording's last frame lifts onto its card, then the preview shows.
        m_cardLanded = false;
        m_stage->setCurrentWidget(m_card);
        connect(m_card, &StagedCard::landed, this, [this] {
            m_cardLanded = true;
            if (m_previewOpened)
                m_stage->setCurrentWidget(m_preview);
        });
        inBackground(this, [movie = m_movie] { return lastFrame(movie); },
            [](EditorWindow* window, Result<Image> frame) {
                if (!frame)
                    logLine("Plim: the staged moment could not read the last frame of " + window->m_movie.string()
                        + " (" + frame.error().sentence + "); it starts on an empty card.");
                window->m_card->lift(frame ? toQImage(*frame) : QImage());
            });
    } else if (opening.stagedMoment) {
        logLine("Plim: the plim stopped early (" + *opening.notice + "); opening what was saved without the staged moment.");
    }
    showStatus("Opening the plim…");
    resize(1320, 860);

    // The plim's edits, its tracks and its length are read on a worker.
    const std::optional<PlimLook> newLook = m_looks.newPlimLook();
    inBackground(
        this,
        [movie = m_movie, newLook]() -> Opened {
            Opened opened;
            auto reader = MovieReader::create(movie, {.threads = 1});
            if (!reader) {
                opened.failure = reader.error().sentence;
                return opened;
            }
            opened.info = (*reader)->info();
            reader->reset();
            const bool phone = false; // a desktop recording never comes from an iPhone
            opened.result = PlimDocument::open(movie, opened.info.duration, phone,
                PlimDocument::automaticEdit(movie, opened.info.duration, newLook));
            opened.moments = readPlimMoments(movie);
            opened.captions = readPlimCaptions(movie, &opened.result.document->edits());
            return opened;
        },
        [](EditorWindow* window, Opened opened) { window->opened(std::move(opened)); });
}

EditorWindow::~EditorWindow()
{
    finishVoiceover(); // a take in progress is kept
    // A caption pass under way is stopped first; the overlay and timeline refer to the
    // document, so they go before it.
    delete m_captioner;
    delete m_overlay;
    delete m_timeline;
    delete m_inspector;
}

QString EditorWindow::notice() const { return m_readOnlyBar->isHidden() ? QString() : m_readOnlyBar->text(); }

QString EditorWindow::status() const { return m_status->text(); }

void EditorWindow::showStatus(const QString& text, bool failure)
{
    m_status->setText(text);
    m_status->setStyleSheet(failure ? "color: #ff8a80;" : QString());
}

void EditorWindow::opened(Opened opened)
{
    if (opened.failure) {
        showStatus(QString::fromStdString(*opened.failure), true);
        return;
    }
    m_document = std::move(opened.result.document);
    m_sourceWidth = opened.info.width;
    m_sourceHeight = opened.info.height;
    if (opened.result.notice) {
        // Refused or unreadable: nothing is written over the file.
        m_readOnly = true;
        m_readOnlyBar->setText(QString::fromStdString(opened.result.notice->sentence));
        m_readOnlyBar->show();
    }
    buildEditing();
    m_timeline->setMoments(std::move(opened.moments));
    // A caption track that cannot be read is left as it is; its lane and the status say why.
    const CaptionTrack captions = opened.captions.value.value_or(CaptionTrack{});
    m_timeline->setCaptions(captions.lines, opened.captions.value || opened.captions.notices.empty()
            ? QString()
            : QString::fromStdString(opened.captions.notices.front()));
    m_preview->setCaptions(captions);
    m_document->setObserver([this] { documentChanged(); });
    m_preview->open(m_movie, m_document->edits());
    if (!m_readOnly && !opened.result.editsFromFile) {
        // A plim seen for the first time keeps its automatic edit on disk.
        showStatus(automaticSummary(m_document->edits().plan, m_document->duration()));
        if (auto written = m_document->save(); !written)
            showStatus(QString::fromStdString(m_document->shortSaveSentence(written.error())), true);
    } else {
        showStatus(m_readOnly ? QString() : "Edits are saved as you work.");
    }
    for (const std::string& notice : opened.captions.notices)
        showStatus((status().isEmpty() ? QString() : status() + " ") + QString::fromStdString(notice), true);
    documentChanged();
    emit documentOpened();
}

void EditorWindow::buildEditing()
{
    m_thumbnails = std::make_unique<ThumbnailSource>(m_movie, 54);
    m_waveform = std::make_unique<WaveformSource>(m_movie);
    m_timeline = new TimelineView(*m_document);
    m_timeline->setSources(m_thumbnails.get(), m_waveform.get());
    m_timeline->setReadOnly(m_readOnly);
    m_timelineSlot->layout()->addWidget(m_timeline);
    m_inspector = new Inspector(*m_document, m_looks);
    m_inspector->setReadOnly(m_readOnly);
    m_inspector->onNotice = [this](const QString& sentence) { showStatus(sentence, true); };
    m_inspector->onGenerateCaptions = [this] { generateCaptions(); };
    m_inspectorSlot->layout()->addWidget(m_inspector);
    m_overlay = new BlurOverlay(*m_preview, *m_document, m_sourceWidth, m_sourceHeight);
    m_overlay->setReadOnly(m_readOnly);
    connect(m_preview, &PreviewView::opened, m_inspector, [this] {
        if (auto look = m_preview->stagedLook())
            m_document->setLookSeed(*look);
        if (const StageSpec* base = m_preview->stageBase())
            m_inspector->setStageBase(*base);
    });

    connect(m_timeline, &TimelineView::scrubbed, this, [this](double t, bool dragging) {
        m_preview->seek(t, dragging);
        m_overlay->setSourceTime(m_timeline->remap().input(t));
        updateTime();
    });
    connect(m_timeline, &TimelineView::selectionChanged, this, [this] {
        const auto& selection = m_timeline->selection();
        m_inspector->setSelectedZoom(selection.kind == TimelineView::ItemKind::zoom ? std::optional(selection.id) : std::nullopt);
    });
    connect(m_timeline, &TimelineView::zoomClicked, this, [this](const QString& id, QPoint where) {
        // The popover: the block's style and level, and Remove.
        auto* popover = new QFrame(this, Qt::Popup);
        popover->setObjectName("zoomPopover");
        popover->setAttribute(Qt::WA_DeleteOnClose);
        popover->setStyleSheet("QFrame#zoomPopover { background: #26282f; border: 1px solid #3a3d46; border-radius: 8px; }");
        auto* box = new QVBoxLayout(popover);
        const std::string block = id.toStdString();
        const auto& zooms = m_document->edits().plan.zooms;
        auto found = std::find_if(zooms.begin(), zooms.end(), [&](const ZoomBlock& z) { return z.id == block; });
        if (found == zooms.end())
            return popover->deleteLater();
        box->addWidget(new QLabel(found->origin.kind == ZoomBlock::Origin::Kind::clickCluster
                ? QString("Automatic zoom, from %1 click%2").arg(found->origin.count).arg(found->origin.count == 1 ? "" : "s")
                : QString("Zoom")));
        auto* style = new QComboBox;
        style->addItem("As the stage", QString());
        for (ZoomStyle s : allZoomStyles) {
            QString text = QString::fromUtf8(zoomStyleText(s).data());
            style->addItem(text.left(1).toUpper() + text.mid(1), text);
        }
        style->setCurrentIndex(std::max(0, style->findData(QString::fromStdString(found->style.value_or("")))));
        connect(style, &QComboBox::activated, popover, [this, style, block](int index) {
            const QString value = style->itemData(index).toString();
            m_document->setZoomStyle(block, value.isEmpty() ? std::nullopt : std::optional(value.toStdString()));
        });
        auto* level = new QSlider(Qt::Horizontal);
        level->setRange(10, 40);
        level->setValue(int(std::lround(found->scale * 10)));
        auto* levelText = new QLabel(QString::number(found->scale, 'f', 1) + "×");
        connect(level, &QSlider::sliderPressed, popover, [this] { m_document->beginGesture(); });
        connect(level, &QSlider::sliderReleased, popover, [this] { m_document->endGesture(); });
        connect(level, &QSlider::valueChanged, popover, [this, block, levelText](int v) {
            m_document->setZoomLevel(block, v / 10.0);
            levelText->setText(QString::number(v / 10.0, 'f', 1) + "×");
        });
        auto* levelRow = new QHBoxLayout;
        levelRow->addWidget(new QLabel("Level"));
        levelRow->addWidget(level, 1);
        levelRow->addWidget(levelText);
        auto* remove = new QPushButton("Remove Zoom");
        connect(remove, &QPushButton::clicked, popover, [this, block, popover] {
            m_document->removeZoom(block);
            popover->close();
        });
        box->addWidget(style);
        box->addLayout(levelRow);
        box->addWidget(remove);
        popover->setMinimumWidth(240);
        popover->move(where);
        popover->show();
    });
    connect(m_timeline, &TimelineView::pauseClicked, this, [this](const QString& id, QPoint where) {
        // The sped-up stretch's popover: its speed, or played as recorded.
        const auto& skips = m_document->edits().plan.skips;
        auto found = std::find_if(skips.begin(), skips.end(), [&](const SkipDecision& s) { return s.identity() == id.toStdString(); });
        if (found == skips.end())
            return;
        auto* popover = new QFrame(this, Qt::Popup);
        popover->setObjectName("pausePopover");
        popover->setAttribute(Qt::WA_DeleteOnClose);
        popover->setStyleSheet("QFrame#pausePopover { background: #26282f; border: 1px solid #3a3d46; border-radius: 8px; }");
        auto* box = new QVBoxLayout(popover);
        auto* speed = new QComboBox;
        for (double rate : {2.0, 4.0, 8.0, 16.0})
            speed->addItem(QString("%1× faster").arg(rate), rate);
        speed->setCurrentIndex(std::max(0, speed->findData(found->rate)));
        auto* keep = new QPushButton(found->keep ? "Speed It Up" : "Play at Normal Speed");
        const SkipDecision decision = *found;
        connect(speed, &QComboBox::activated, popover, [this, speed, decision](int index) {
            m_document->setPauseSpeed(decision.identity(), speed->itemData(index).toDouble());
        });
        connect(keep, &QPushButton::clicked, popover, [this, decision, popover] {
            SkipDecision changed = decision;
            changed.keep = !decision.keep;
            m_document->skip(changed);
            popover->close();
        });
        box->addWidget(new QLabel("Dead air"));
        box->addWidget(speed);
        box->addWidget(keep);
        popover->move(where);
        popover->show();
    });
    connect(m_overlay, &BlurOverlay::drawn, this, [this] { m_blurButton->setChecked(false); });
    connect(m_overlay, &BlurOverlay::blurSelected, this,
        [this](const QString& id) { m_timeline->select({TimelineView::ItemKind::blur, id.toStdString()}); });
    for (QWidget* w : m_editingControls)
        w->setEnabled(!m_readOnly);
}

void EditorWindow::documentChanged()
{
    if (!m_document)
        return;
    m_timeline->refresh();
    m_inspector->refresh();
    m_preview->setEdits(m_document->edits());
    m_overlay->setSourceTime(m_timeline->remap().input(m_preview->position()));
    m_overlay->update();
    const bool editable = !m_readOnly;
    m_undo->setEnabled(editable && m_document->canUndo());
    m_redo->setEnabled(editable && m_document->canRedo());
    m_undoButton->setEnabled(m_undo->isEnabled());
    m_redoButton->setEnabled(m_redo->isEnabled());
    setWindowTitle(QString::fromStdString(m_movie.stem().string()) + (m_document->isDirty() ? " •" : ""));
    if (editable && m_document->isDirty())
        m_saveTimer->start();
    updateTime();
}

void EditorWindow::generateCaptions()
{
    if (!m_document || m_readOnly)
        return;
    if (!m_captioner) {
        m_captioner = new CaptionGenerator(builtInRouterParts(captionLanguage()), this);
        connect(m_captioner, &CaptionGenerator::progress, this, [this](const QString& line) { showStatus(line); });
        connect(m_captioner, &CaptionGenerator::failed, this, [this](const QString& sentence) {
            m_inspector->setCaptionsBusy(false);
            showStatus(sentence, true);
        });
        connect(m_captioner, &CaptionGenerator::finished, this, [this](const CaptionTrack& track, const QString& notice) {
            m_inspector->setCaptionsBusy(false);
            const std::filesystem::path file = CaptionTrack::fileBeside(m_movie);
            if (auto written = writeJsonAtomic(file, track.toJson()); !written) {
                showStatus(QString::fromStdString("The captions could not be saved to " + file.string() + " ("
                               + written.error().sentence + "). The previous captions file, if any, was left as it is."),
                    true);
                return;
            }
            // The edits name the file and show it.
            m_timeline->setCaptions(track.lines);
            m_preview->setCaptions(track);
            m_document->setCaptionsFile(file.filename().string());
            m_document->setLook([](PlimLook& look) { look.captions = true; });
            const size_t lines = track.lines.size();
            const QString done = QString("Captions ready: %1 line%2.").arg(lines).arg(lines == 1 ? "" : "s");
            showStatus(notice.isEmpty() ? done : done + " " + notice);
        });
    }
    if (m_captioner->start(m_movie, m_document->duration()))
        m_inspector->setCaptionsBusy(true);
}

void EditorWindow::saveNow()
{
    m_saveTimer->stop();
    if (!m_document || m_readOnly || !m_document->isDirty())
        return;
    if (auto written = m_document->save(); !written) {
        logLine(LogArea::main, written.error().sentence);
        showStatus(QString::fromStdString(m_document->shortSaveSentence(written.error())), true);
        return;
    }
    showStatus("Edits saved.");
    setWindowTitle(QString::fromStdString(m_movie.stem().string()));
    emit saved();
}

void EditorWindow::drawBlurBox() { m_blurButton->setChecked(true); }

void EditorWindow::updateTime()
{
    const double position = m_preview->position();
    const double duration = m_timeline ? m_timeline->remap().outputDuration(m_document->duration()) : m_preview->duration();
    m_time->setText(clock(position) + " / " + clock(duration));
}

void EditorWindow::setLibraryFolder(std::filesystem::path folder) { m_libraryFolder = std::move(folder); }

bool EditorWindow::isRecordingVoiceover() const { return m_voiceover != nullptr; }

void EditorWindow::startVoiceover()
{
    if (!m_document || m_readOnly || m_voiceover)
        return;
    const double at = m_preview->position();
    if (at >= m_preview->duration() - 0.1) {
        showStatus("A voiceover starts at the playhead, and the playhead is at the end of the plim. Move it to where "
                   "the narration should begin, then record.", true);
        return;
    }
    m_preview->pause();
    saveNow();
    if (!m_libraryFolder)
        m_libraryFolder = StorageRoot::direct(Places::home()).folder();
    VoiceoverRecorder::Settings settings;
    settings.libraryFolder = *m_libraryFolder;
    settings.movie = m_movie;
    settings.sourceStart = voiceoverSourceTime(m_document->edits(), m_document->duration(), at);
    settings.cueAtStart = false; // the take begins as the picture does
    auto recorder = VoiceoverRecorder::start(settings);
    if (!recorder) {
        showStatus(QString::fromStdString(recorder.error().sentence), true);
        return;
    }
    m_voiceover = std::move(*recorder);
    m_voiceSourceStart = settings.sourceStart;
    m_voiceOutputStart = at;
    m_voicePlayed = false;
    m_preview->setMuted(!m_headphones->isChecked());
    m_preview->play();
    m_voiceButton->setText("■ Stop");
    m_headphones->setEnabled(false);
    m_voiceTimer->start();
    voiceoverTick();
}

void EditorWindow::voiceoverTick()
{
    if (!m_voiceover)
        return;
    // Played once the picture moved on from where the take began (news of an earlier pause
    // may still be on its way); stopped after that, the plim ended or was paused.
    if (m_preview->isPlaying() && m_preview->position() > m_voiceOutputStart + 0.05) {
        if (!std::exchange(m_voicePlayed, true)) // the picture started as far back as it has played
            m_voiceover->cue(systemUptime() - (m_preview->position() - m_voiceOutputStart));
    } else if (!m_preview->isPlaying() && m_voicePlayed)
        return finishVoiceover();
    const double seconds = m_voiceover->seconds();
    m_timeline->setRecordingTake(std::pair{m_voiceSourceStart, seconds});
    QString text = "Recording a voiceover · " + clock(seconds) + " · Esc drops the take";
    if (auto trouble = m_voiceover->trouble())
        text += " · " + QString::fromStdString(*trouble);
    showStatus(text, m_voiceover->trouble().has_value());
}

void EditorWindow::finishVoiceover()
{
    if (!m_voiceover)
        return;
    auto recorder = std::move(m_voiceover);
    m_voiceTimer->stop();
    m_preview->pause();
    auto voice = recorder->finish(*m_document);
    recorder.reset();
    m_preview->setMuted(false);
    m_timeline->setRecordingTake(std::nullopt);
    m_voiceButton->setText("● Voiceover");
    m_headphones->setEnabled(true);
    if (!voice) {
        showStatus(QString::fromStdString(voice.error().sentence), true);
        return;
    }
    m_timeline->select({TimelineView::ItemKind::voiceover, voice->id});
    showStatus(QString("Voiceover added: %1 from %2 of the recording, as %3.")
                   .arg(clock(voice->duration), clock(voice->start), QString::fromStdString(voice->file)));
    setWindowTitle(QString::fromStdString(m_movie.stem().string()));
    emit saved();
}

void EditorWindow::cancelVoiceover()
{
    if (!m_voiceover)
        return;
    m_voiceTimer->stop();
    m_preview->pause();
    m_voiceover->cancel();
    m_voiceover.reset();
    m_preview->setMuted(false);
    m_timeline->setRecordingTake(std::nullopt);
    m_voiceButton->setText("● Voiceover");
    m_headphones->setEnabled(true);
    showStatus("The voiceover take was dropped; nothing was added.");
}

void EditorWindow::closeEvent(QCloseEvent* event)
{
    finishVoiceover();
    saveNow();
    QWidget::closeEvent(event);
}

} // namespace plim
