#include "ui/app_windows.h"

#include "base/places.h"
#include "base/settings.h"
#include "library/library.h"
#include "ui/app_shell.h"
#include "ui/area_picker.h"
#include "ui/home_window.h"
#include "ui/record_panel.h"
#include "ui/settings_window.h"
#include "ui/share_sheet.h"

#include <QPointer>

namespace plim {

namespace {

// Shows the picker over every display, opening on the last area; `picked` hears only a
// confirmed area.
void pickArea(std::function<void(const Rect&)> picked)
{
    auto* picker = new AreaPicker(RecordChoice::load(FileSettingsStore::shared()).area);
    picker->onPicked = [picker, picked = std::move(picked)](std::optional<Rect> area) {
        picker->deleteLater();
        if (area)
            picked(*area);
    };
    picker->show();
}

} // namespace

void installWindows(AppShell& shell)
{
    using Destination = WindowRouter::Destination;
    WindowRouter& router = shell.router();
    const std::filesystem::path folder = shell.driver().libraryFolder();
    shell.setAreaPicker(pickArea);

    router.setFactory(Destination::home, [&shell, &router, folder](const WindowRouter::Request&) -> QWidget* {
        auto* home = new HomeWindow(folder);
        home->onOpen = [&shell](const std::filesystem::path& movie) { shell.openInEditor(movie); };
        home->onShare = [&router](const std::filesystem::path& movie) {
            router.show(Destination::share, WindowRouter::Request{.movie = movie});
        };
        home->onRecord = [&router] { router.show(Destination::recordPanel); };
        home->addHeaderAction(shell.actions().goLive);
        return home;
    });

    router.setFactory(Destination::recordPanel, [&shell, folder](const WindowRouter::Request&) -> QWidget* {
        auto* panel = new RecordPanel(FileSettingsStore::shared(), folder);
        QPointer<RecordPanel> guard(panel);
        panel->onRecord = [&shell, guard](const CaptureSettings&, int) {
            if (!guard)
                return;
            // The panel saved its choice; the shell records it with its countdown.
            RecordChoice choice = guard->choice();
            guard->close();
            shell.record(choice);
        };
        panel->onPickArea = [guard] {
            pickArea([guard](const Rect& area) {
                if (guard) {
                    guard->setArea(area);
                    guard->show();
                    guard->raise();
                }
            });
        };
        return panel;
    });

    router.setFactory(Destination::share, [](const WindowRouter::Request& request) -> QWidget* {
        if (!request.movie)
            return nullptr;
        return new ShareSheet(*request.movie, FileSettingsStore::shared());
    });

    router.setFactory(Destination::settings, [&router](const WindowRouter::Request&) -> QWidget* {
        auto* settings = new SettingsWindow(FileSettingsStore::shared(), StorageRoot::direct(Places::home()),
            LookStore::defaultFile());
        settings->onLibraryMoved = [&router](const std::filesystem::path&) {
            if (auto* home = router.home() ? router.home()->findChild<HomeWindow*>() : nullptr)
                home->reload();
        };
        return settings;
    });
}

} // namespace plim
