#include "ui/app_shell.h"

#include "base/log.h"
#include "base/settings.h"
#include "capture/capture.h"
#include "library/look_store.h"
#include "live/camera_sinks.h"
#include "ui/desktop_icons.h"
#include "ui/desktop_services.h"
#include "ui/editor_window.h"
#include "ui/live_bar.h"
#include "ui/main_menu.h"
#include "ui/subject_overlays.h"
#include "ui/tray_item.h"

#include <QAction>
#include <QApplication>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMessageBox>
#include <QScreen>
#include <QThreadPool>
#include <QTimer>
#include <QUrl>

#include <cstdlib>

namespace plim {

namespace {

// Where the subject lies on the screen, in global points: the countdown is drawn over it.
Rect subjectRect(const CaptureSettings& settings)
{
    QRect primary = QGuiApplication::primaryScreen() ? QGuiApplication::primaryScreen()->geometry() : QRect(0, 0, 800, 600);
    Rect fallback{double(primary.x()), double(primary.y()), double(primary.width()), double(primary.height())};
    const ScreenSubject& subject = settings.subject;
    if (subject.kind == ScreenSubject::Kind::area)
        return subject.area;
    auto desktop = Desktop::create(settings.display);
    if (!desktop)
        return fallback;
    if (subject.kind == ScreenSubject::Kind::window) {
        for (const auto& window : (*desktop)->windows())
            if (window.id == subject.windowID)
                return window.frame;
        return fallback;
    }
    for (const auto& display : (*desktop)->displays())
        if (display.name == subject.displayName || (subject.displayName.empty() && display.primary))
            return display.frame;
    return fallback;
}

std::vector<Rect> displayFrames()
{
    std::vector<Rect> frames;
    if (auto desktop = Desktop::create())
        for (const auto& display : (*desktop)->displays())
            frames.push_back(toWindowPoints(display.frame));
    return frames;
}

} // namespace

AppShell::AppShell(std::filesystem::path libraryFolder, QObject* parent)
    : QObject(parent), m_driver(std::make_unique<RecordingDriver>(std::move(libraryFolder)))
{
    makeActions();
    m_router = std::make_unique<WindowRouter>(m_actions);
    m_router->setFactory(WindowRouter::Destination::stagedMoment, [this](const WindowRouter::Request& request) -> QWidget* {
        if (!request.movie)
            return nullptr;
        return new EditorWindow({*request.movie, request.stagedMoment, request.notice},
            [this](const std::filesystem::path& movie) {
                m_router->show(WindowRouter::Destination::share, WindowRouter::Request{.movie = movie});
            });
    });
    m_outline = std::make_unique<RegionOutline>();
    m_icons = std::make_unique<DesktopIcons>(FileSettingsStore::shared());
    m_follow = new QTimer(this);
    m_follow->setInterval(200);
    connect(m_follow, &QTimer::timeout, this, &AppShell::followWindow);
    m_liveBar = std::make_unique<LiveBar>(m_actions, [this] { m_driver->replim(); });
    m_live = std::make_unique<LiveDriver>(LiveServices{}, [] { return availableCameraSinks(); });
    m_streamBar = std::make_unique<LiveStreamBar>(m_actions.stopLive,
        [monitor = m_live->monitor()](int maxWidth) { return monitor->latest(maxWidth); });
    connect(m_live.get(), &LiveDriver::stateChanged, this, &AppShell::onLiveState);
    connect(m_live.get(), &LiveDriver::progress, m_streamBar.get(), &LiveStreamBar::setStarting);
    connect(m_live.get(), &LiveDriver::health, this, [this](const QString& line, const QString& note) {
        m_streamBar->setHealth(line);
        m_streamBar->setNote(note);
    });
    connect(m_live.get(), &LiveDriver::notice, m_streamBar.get(), &LiveStreamBar::addNotice);
    connect(m_live.get(), &LiveDriver::failed, this, [this](const QString& sentence) { showFailure(sentence, "Plim Live"); });
    connect(m_driver.get(), &RecordingDriver::stateChanged, this, &AppShell::onState);
    connect(m_driver.get(), &RecordingDriver::elapsedChanged, this, [this] { refresh(); });
    connect(m_driver.get(), &RecordingDriver::marksChanged, this, [this] { refresh(); });
    connect(m_driver.get(), &RecordingDriver::failed, this, [this](const QString& sentence) { showFailure(sentence); });
    connect(m_driver.get(), &RecordingDriver::inputNotice, this, [this](const QString& sentence) {
        m_liveBar->addNotice(sentence); // the capture has logged it
        if (m_tray)
            m_tray->say("Plim", sentence);
        else if (!m_liveBar->isVisible())
            m_router->setHomeNotice(sentence);
    });
    m_driver->onPlimFinished = [this](const RawPlim& plim, const std::optional<std::string>& failure) {
        onPlimFinished(plim, failure);
    };
    // Every way out of the application (the menu, the session ending, SIGTERM) finishes the
    // recording on disk first.
    connect(qApp, &QCoreApplication::aboutToQuit, this, [this] {
        m_quitting = true;
        cancelCountdown();
        m_live->stopNow();
        m_driver->finishBeforeQuit();
        showDesktopIcons();
        // An automatic edit or poster under way is written whole before the process ends.
        QThreadPool::globalInstance()->waitForDone();
    });
    // Icons a killed Plim left hidden come back.
    showDesktopIcons();
    refresh();
}

AppShell::~AppShell() = default;

void AppShell::showDesktopIcons()
{
    if (auto shown = m_icons->restore(); !shown)
        showFailure(QString::fromStdString(shown.error().sentence));
}

void AppShell::makeActions()
{
    auto action = [this](const QString& text, auto slot) {
        auto* a = new QAction(text, this);
        connect(a, &QAction::triggered, this, slot);
        return a;
    };
    m_actions.record = action("Record", [this] { toggle(); });
    m_actions.record->setObjectName("record");
    m_actions.record->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_R));
    m_actions.newRecording = action("New Recording…", [this] { m_router->show(WindowRouter::Destination::recordPanel); });
    m_actions.newRecording->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_N));
    m_actions.recordArea = action("Record Area…", [this] { recordArea(); });
    m_actions.stop = action("Stop", [this] { perform("stop"); });
    m_actions.stop->setObjectName("stop");
    m_actions.pause = action("Pause", [this] { m_driver->togglePause(); });
    m_actions.mark = action("Mark", [this] { m_driver->mark(); });
    m_actions.goLive = action("&Go Live", [this] { goLive(); });
    m_actions.goLive->setObjectName("goLive");
    m_actions.goLive->setToolTip("Show the composed screen in the live bar and as the Plim Camera in video apps");
    m_actions.stopLive = action("Stop &Live", [this] { m_live->stop(); });
    m_actions.stopLive->setObjectName("stopLive");
    m_actions.openLibrary = action("Open Library", [this] { m_router->show(WindowRouter::Destination::home); });
    m_actions.showFolder = action("Show Library Folder", [this] {
        if (auto shown = showInFileManager(m_driver->libraryFolder()); !shown)
            showFailure(QString::fromStdString(shown.error().sentence));
    });
    m_actions.settings = action("Settings…", [this] { m_router->show(WindowRouter::Destination::settings); });
    m_actions.quit = action("Quit Plim", [] { QCoreApplication::quit(); });
    m_actions.quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
}

void AppShell::start(const std::optional<std::string>& action)
{
    if (TrayItem::isAvailable()) {
        m_tray = std::make_unique<TrayItem>(m_actions);
        connect(m_tray.get(), &TrayItem::activated, this, [this] { m_router->show(WindowRouter::Destination::home); });
        m_tray->show();
        refresh();
    } else {
        const QString sentence = "There is no tray on this desktop, so Plim keeps this window instead. Reach Plim from a "
                                 "terminal or your desktop's keyboard shortcuts: plim --toggle records or stops, plim "
                                 "--pause, plim --mark, plim --stop, and plim --show brings this window back.";
        logLine(LogArea::main, sentence.toStdString());
        m_router->setHomeNotice(sentence);
    }
    if (!action || *action == "show" || std::getenv("PLIM_PROBE_MAIN_MENU"))
        m_router->show(WindowRouter::Destination::home);
    if (m_router->home())
        probeMainMenuIfAsked(m_router->home());
    if (action && *action != "show")
        perform(QString::fromStdString(*action));
}

void AppShell::perform(const QString& action)
{
    const bool rolling = m_driver->isRolling();
    if (action.isEmpty() || action == "show")
        m_router->show(WindowRouter::Destination::home);
    else if (action == "toggle")
        toggle();
    else if (action == "stop") {
        if (m_countdown)
            cancelCountdown();
        else if (rolling)
            m_driver->stop();
    } else if (action == "pause") {
        if (rolling)
            m_driver->togglePause();
    } else if (action == "mark") {
        if (rolling)
            m_driver->mark();
    } else if (action == "record-area")
        recordArea();
    else if (action == "quit")
        QCoreApplication::quit();
    else
        logLine(LogArea::main, "the action \"" + action.toStdString() + "\" is not one Plim knows; nothing was done.");
}

void AppShell::toggle()
{
    switch (m_driver->state()) {
    case RecordingDriver::State::rolling:
    case RecordingDriver::State::paused: m_driver->stop(); break;
    case RecordingDriver::State::starting: cancelCountdown(); break;
    case RecordingDriver::State::staging: {
        const QString sentence = "Plim is still finishing the last plim, so nothing new was started. Try again in a moment.";
        logLine(LogArea::main, sentence.toStdString());
        if (m_tray)
            m_tray->say("Plim", sentence);
        break;
    }
    case RecordingDriver::State::idle: record(RecordChoice::load(FileSettingsStore::shared())); break;
    }
}

void AppShell::recordArea()
{
    if (m_driver->state() != RecordingDriver::State::idle)
        return;
    auto picked = [this](const Rect& area) {
        RecordChoice choice = RecordChoice::load(FileSettingsStore::shared());
        choice.subject = RecordChoice::Subject::area;
        choice.area = area;
        if (auto saved = choice.save(FileSettingsStore::shared()); !saved)
            logLine(LogArea::main, saved.error().sentence);
        record(choice);
    };
    if (m_areaPicker)
        m_areaPicker(picked);
}

void AppShell::record(const RecordChoice& choice)
{
    CaptureSettings settings = choice.captureSettings(FileSettingsStore::shared());
    auto blocking = RecordingController::preflightBlockingLines(settings.display, m_driver->libraryFolder());
    if (!blocking.empty()) {
        QString lines;
        for (const auto& line : blocking)
            lines += (lines.isEmpty() ? "" : "\n") + QString::fromStdString(line);
        showFailure(lines);
        return;
    }
    if (choice.countdownSeconds <= 0) {
        m_driver->start(settings);
        return;
    }
    m_countdown = new CountdownOverlay(subjectRect(settings), choice.countdownSeconds);
    connect(m_countdown, &CountdownOverlay::finished, this, [this, settings] { m_driver->start(settings); });
    connect(m_countdown, &CountdownOverlay::cancelled, this, [this] {
        logLine(LogArea::main, "The recording was cancelled before it started. Nothing was recorded.");
        m_driver->noteCountdown(false);
    });
    m_driver->noteCountdown(true);
    m_countdown->begin();
}

void AppShell::cancelCountdown()
{
    if (!m_countdown)
        return;
    // Closing without Esc: the same as Esc.
    QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
    QCoreApplication::sendEvent(m_countdown, &escape);
}

void AppShell::goLive()
{
    if (m_live->state() != LiveDriver::State::idle) {
        m_streamBar->raise();
        return;
    }
    if (auto refusal = goLiveRefusal(m_driver->activity())) {
        showFailure(QString::fromStdString(*refusal), "Plim Live");
        return;
    }
    LookStore looks;
    if (looks.loadProblem())
        logLine(LogArea::live, *looks.loadProblem());
    LiveSessionOptions options;
    options.look = looks.newPlimLook().value_or(PlimLook{});
    m_streamBar->clear();
    m_live->start(std::move(options));
}

void AppShell::onLiveState(LiveDriver::State state)
{
    if (state == LiveDriver::State::idle) {
        m_streamBar->hide();
        m_streamBar->clear();
    } else if (!m_streamBar->isVisible()) {
        // On another display than the streamed one where there is one, else over the
        // streamed display's lower right corner, where it hides the least.
        m_streamBar->adjustSize();
        const auto displays = displayFrames();
        const Rect streamed = displays.empty() ? Rect{0, 0, 1280, 720} : displays.front();
        auto place = liveBarPlace(streamed, true, displays, m_streamBar->width(), m_streamBar->height());
        if (!place)
            place = Rect{streamed.x + streamed.width - m_streamBar->width() - 24,
                streamed.y + streamed.height - m_streamBar->height() - 48, 0, 0};
        m_streamBar->anchorAt(QPoint(int(place->x) + m_streamBar->width(), int(place->y) + m_streamBar->height()));
        m_streamBar->show();
    }
    refresh();
}

void AppShell::showFailure(const QString& sentence, const QString& title)
{
    logLine(LogArea::main, sentence.toStdString());
    if (m_quitting)
        return;
    auto* box = new QMessageBox(QMessageBox::Warning, title, sentence, QMessageBox::Ok);
    box->setObjectName("failureAlert");
    box->setTextFormat(Qt::PlainText);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setModal(false);
    box->show();
}

void AppShell::onState(RecordingDriver::State state)
{
    if (state == RecordingDriver::State::rolling && !m_liveBar->isVisible()) {
        if (auto hidden = m_icons->hide(); !hidden)
            logLine(LogArea::main, hidden.error().sentence);
        showRollingChrome();
    }
    if (state == RecordingDriver::State::idle || state == RecordingDriver::State::staging) {
        m_liveBar->hide();
        m_outline->hide();
        m_follow->stop();
        showDesktopIcons();
    }
    refresh();
}

void AppShell::showRollingChrome()
{
    m_liveBar->clearNotices();
    const Rect frame = m_driver->subjectFrame();
    const bool wholeDisplay = m_driver->subject().kind == ScreenSubject::Kind::display;
    if (!wholeDisplay)
        m_outline->showAround(frame);
    m_followed = frame;
    if (m_driver->subject().kind == ScreenSubject::Kind::window)
        m_follow->start();
    m_liveBar->adjustSize();
    auto place = liveBarPlace(toWindowPoints(frame), wholeDisplay, displayFrames(), m_liveBar->width(), m_liveBar->height());
    if (!place) {
        logLine(LogArea::main, "the live bar stays hidden while the only display is recorded, so it is not in the plim; "
                               "the tray item and plim --stop control the recording.");
        return;
    }
    m_liveBar->move(int(place->x), int(place->y));
    m_liveBar->show();
}

void AppShell::followWindow()
{
    if (!m_desktop) {
        auto desktop = Desktop::create();
        if (!desktop)
            return;
        m_desktop = std::move(*desktop);
    }
    auto frame = m_desktop->windowFrame(m_driver->subject().windowID);
    if (!frame) {
        m_outline->hide(); // the window is gone; the recording says so itself
        return;
    }
    if (*frame != m_followed)
        m_outline->showAround(*frame);
    m_followed = *frame;
}

void AppShell::refresh()
{
    using State = RecordingDriver::State;
    const State state = m_driver->state();
    const bool rolling = m_driver->isRolling();
    m_actions.record->setEnabled(state == State::idle);
    m_actions.recordArea->setEnabled(state == State::idle);
    m_actions.newRecording->setEnabled(state == State::idle);
    m_actions.stop->setEnabled(rolling || state == State::starting);
    m_actions.pause->setEnabled(rolling);
    m_actions.pause->setText(state == State::paused ? "Resume" : "Pause");
    m_actions.mark->setEnabled(state == State::rolling);
    m_actions.goLive->setEnabled(m_live->state() == LiveDriver::State::idle);
    m_actions.stopLive->setEnabled(m_live->state() != LiveDriver::State::idle);
    if (m_tray)
        m_tray->update(state, m_driver->elapsed());
    m_liveBar->update(state, m_driver->elapsed(), m_driver->markCount());
}

void AppShell::onPlimFinished(const RawPlim& plim, const std::optional<std::string>& failure)
{
    m_liveBar->hide();
    m_outline->hide();
    m_follow->stop();
    if (m_quitting)
        return;
    std::optional<std::string> notice;
    if (failure)
        notice = *failure + (failure->ends_with('.') ? "" : ".") + " What was recorded up to then is kept.";
    m_arrivals[plim.movie.string()] = notice;
    openInEditor(plim.movie);
}

void AppShell::openInEditor(const std::filesystem::path& movie)
{
    WindowRouter::Request request{.movie = movie};
    // A plim just recorded arrives with the staged moment, or with why it stopped early.
    if (auto arrival = m_arrivals.find(movie.string()); arrival != m_arrivals.end()) {
        request.stagedMoment = true;
        request.notice = arrival->second;
        m_arrivals.erase(arrival);
    }
    m_router->show(WindowRouter::Destination::stagedMoment, request);
}

void AppShell::openFile(const QString& uri)
{
    QUrl url(uri);
    std::filesystem::path movie = url.isLocalFile() ? url.toLocalFile().toStdString() : std::string();
    std::error_code ec;
    if (movie.empty() || !std::filesystem::is_regular_file(movie, ec)) {
        showFailure("Plim could not open " + uri
            + ": it is not a movie file on this computer. Nothing was changed; open a plim from the library.");
        return;
    }
    openInEditor(movie);
}

void AppShell::showRecoveredRecordings(const std::vector<std::string>& sentences)
{
    if (sentences.empty())
        return;
    QString text;
    for (const auto& sentence : sentences) {
        logLine(LogArea::main, sentence);
        text += (text.isEmpty() ? "" : "\n\n") + QString::fromStdString(sentence);
    }
    auto* box = new QMessageBox(QMessageBox::Information,
        sentences.size() == 1 ? "Recovered Recording" : "Recovered Recordings", text, QMessageBox::Ok);
    box->setObjectName("recoveredRecordings");
    box->setTextFormat(Qt::PlainText);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setModal(false);
    box->show();
}

} // namespace plim
