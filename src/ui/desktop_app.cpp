#include "ui/ui.h"

#include "app/control_verbs.h"
#include "app/recording_recovery.h"
#include "app/voiceover_salvage.h"
#include "base/log.h"
#include "base/places.h"
#include "library/library.h"
#include "ui/app_shell.h"
#include "ui/app_windows.h"
#include "ui/application_bus.h"

#include <QApplication>
#include <QSocketNotifier>
#include <QUrl>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sys/socket.h>
#include <unistd.h>

namespace plim {

namespace {

int quitPipe[2] = {-1, -1};

void onQuitSignal(int)
{
    char byte = 1;
    [[maybe_unused]] auto written = ::write(quitPipe[1], &byte, 1);
}

// SIGTERM and SIGINT (a logout, kill, Ctrl-C in a terminal) quit the way the Quit item does,
// so a recording under way is finished on disk first.
void quitOnSignals(QObject* owner)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, quitPipe) != 0)
        return;
    auto* notifier = new QSocketNotifier(quitPipe[0], QSocketNotifier::Read, owner);
    QObject::connect(notifier, &QSocketNotifier::activated, owner, [] {
        char byte = 0;
        [[maybe_unused]] auto got = ::read(quitPipe[0], &byte, 1);
        QCoreApplication::quit();
    });
    struct sigaction action{};
    action.sa_handler = onQuitSignal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

// The files named on the command line (`plim FILE.mov`), as file URIs: the arguments that
// are neither options nor the value of a single-dash option (Qt's -display NAME).
QStringList fileArguments(const std::vector<std::string>& argv)
{
    QStringList files;
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string& arg = argv[i];
        const std::string& before = argv[i - 1];
        const bool optionValue = i > 1 && before.size() > 1 && before[0] == '-' && before[1] != '-';
        if (arg.empty() || arg[0] == '-' || optionValue)
            continue;
        std::error_code ec;
        auto absolute = std::filesystem::absolute(arg, ec);
        files << QUrl::fromLocalFile(QString::fromStdString((ec ? std::filesystem::path(arg) : absolute).string())).toString();
    }
    return files;
}

// A second start hands its verb and files to the Plim already running; true when that one took them.
std::optional<int> forwardIfRunning(const std::optional<std::string>& action, const QStringList& files, std::ostream& err)
{
    auto forwarded = forwardToRunningInstance(action, files);
    if (forwarded.result != Forwarded::delivered)
        return std::nullopt;
    if (forwarded.failure) {
        err << *forwarded.failure << "\n";
        return 1;
    }
    return 0;
}

} // namespace

int runDesktopApp(const std::vector<std::string>& argv)
{
    auto set = [](const char* name) { const char* v = std::getenv(name); return v && *v; };
    if (!set("DISPLAY") && !set("WAYLAND_DISPLAY")) {
        std::cerr << "Plim could not open its windows because this session has no display (neither DISPLAY "
                     "nor WAYLAND_DISPLAY is set). Nothing was recorded or changed. Start Plim from your "
                     "desktop, or render headless with plim --stage <movie>.\n";
        return 1;
    }
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    int argc = int(args.size());
    const auto action = requestedAction(argv);
    const QStringList files = fileArguments(argv);
    {
        // No window and no display connection for a start that only hands its verb over.
        QCoreApplication probe(argc, args.data());
        if (auto status = forwardIfRunning(action, files, std::cerr))
            return *status;
    }

    QApplication app(argc, args.data());
    QApplication::setApplicationName("Plim");
    QApplication::setDesktopFileName("app.plim.Plim");
    QApplication::setQuitOnLastWindowClosed(false);
    quitOnSignals(&app);

    AppShell shell(StorageRoot::direct(Places::home()).folder());
    installWindows(shell);
    ApplicationBus bus;
    switch (bus.claim()) {
    case ApplicationBus::Claim::owned: break;
    case ApplicationBus::Claim::taken:
        // Another Plim started at the same moment and won the name.
        if (auto status = forwardIfRunning(action, files, std::cerr))
            return *status;
        break;
    case ApplicationBus::Claim::noBus:
        logLine(LogArea::main, "there is no session bus, so a second start of Plim (plim --toggle and the other "
                               "verbs) cannot reach this one and would start a Plim of its own.");
        break;
    }
    bus.onAction = [&shell](const QString& name) { shell.perform(name); };
    bus.onOpen = [&shell](const QStringList& uris) {
        for (const QString& uri : uris)
            shell.openFile(uri);
    };
    // Recordings a killed run left are whole plims again before anything new records.
    auto recovered = recoverAbandonedRecordings(shell.driver().libraryFolder());
    // So do voiceover takes a killed run was recording.
    for (auto& sentence : salvageVoiceoverTakes(shell.driver().libraryFolder()))
        recovered.push_back(std::move(sentence));
    shell.start(action);
    shell.showRecoveredRecordings(recovered);
    for (const QString& file : files)
        shell.openFile(file);
    return app.exec();
}

} // namespace plim
