#pragma once
// The running application: the recording driver, the tray item, the countdown, the live bar
// and outline while rolling, going live (the live bar's live form with the monitor's
// picture), the stop flow, the router's windows, and the control verbs that arrive over
// the session bus.
//
// Threads: GUI thread.

#include "app/record_choice.h"
#include "ui/live_driver.h"
#include "ui/recording_driver.h"
#include "ui/shell_actions.h"
#include "ui/window_router.h"

#include <QObject>
#include <QPointer>

class QTimer;

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plim {

class CountdownOverlay;
class Desktop;
class DesktopIcons;
class LiveBar;
class LiveStreamBar;
class RegionOutline;
class TrayItem;

class AppShell : public QObject {
    Q_OBJECT
public:
    explicit AppShell(std::filesystem::path libraryFolder, QObject* parent = nullptr);
    ~AppShell() override;

    // The tray item (or the home window where there is no tray), the first window and the
    // command line's action; `action` is a control verb's action name.
    void start(const std::optional<std::string>& action);

    // A control verb's action ("toggle", "stop", "pause", "mark", "record-area", "show",
    // "quit"); empty for a plain activation, which shows the home window.
    void perform(const QString& action);

    // Opens a plim in its editor (raised when it is open already). The stop flow comes
    // through here too, so a plim just recorded gets its staged moment first.
    void openInEditor(const std::filesystem::path& movie);

    // A plim named by a file URI (a file manager's Open With); anything else gets a sentence.
    void openFile(const QString& uri);

    // Tells the user what was recovered of recordings an earlier run left unfinished.
    void showRecoveredRecordings(const std::vector<std::string>& sentences);

    // Shows the area picker, which calls `picked` with the area (global points) when the
    // user confirms and nothing when cancelled.
    using AreaPickerLauncher = std::function<void(std::function<void(const Rect&)> picked)>;
    void setAreaPicker(AreaPickerLauncher launcher) { m_areaPicker = std::move(launcher); }

    // Runs the preflight, the countdown of the choice and the recording.
    void record(const RecordChoice& choice);

    // Goes live with the user's look for new plims into the monitor and the cameras there
    // are; refused, in a window with the sentence, while a recording rolls or is finished.
    void goLive();

    WindowRouter& router() { return *m_router; }
    RecordingDriver& driver() { return *m_driver; }
    const ShellActions& actions() const { return m_actions; }

private:
    void makeActions();
    void toggle();
    void recordArea();
    void cancelCountdown();
    void showFailure(const QString& sentence, const QString& title = "Plim");
    void onState(RecordingDriver::State state);
    void onLiveState(LiveDriver::State state);
    void refresh();
    void showRollingChrome();
    // Keeps the outline around a recorded window that moves or resizes.
    void followWindow();
    // Puts back desktop icons hidden for a recording, saying so when the desktop refuses.
    void showDesktopIcons();
    void onPlimFinished(const RawPlim& plim, const std::optional<std::string>& failure);

    ShellActions m_actions;
    std::unique_ptr<RecordingDriver> m_driver;
    std::unique_ptr<WindowRouter> m_router;
    std::unique_ptr<TrayItem> m_tray;
    std::unique_ptr<LiveBar> m_liveBar;
    std::unique_ptr<LiveDriver> m_live;
    std::unique_ptr<LiveStreamBar> m_streamBar;
    std::unique_ptr<RegionOutline> m_outline;
    QTimer* m_follow = nullptr;
    std::unique_ptr<Desktop> m_desktop; // asked where a recorded window lies
    std::unique_ptr<DesktopIcons> m_icons;
    Rect m_followed;
    QPointer<CountdownOverlay> m_countdown;
    AreaPickerLauncher m_areaPicker;
    // Plims the stop flow is handing over, with why each stopped early if it did.
    std::map<std::string, std::optional<std::string>> m_arrivals;
    bool m_quitting = false;
};

} // namespace plim
