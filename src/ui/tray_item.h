#pragma once
// Plim's item in the desktop's tray (StatusNotifierItem where the desktop has a watcher,
// else XEmbed): a glyph for the recording's state, the elapsed time in its tooltip, and
// the shell's commands in its menu.
//
// Threads: GUI thread.

#include "ui/recording_driver.h"
#include "ui/shell_actions.h"

#include <QIcon>
#include <QObject>

class QMenu;
class QSystemTrayIcon;

namespace plim {

class TrayItem : public QObject {
    Q_OBJECT
public:
    TrayItem(const ShellActions& actions, QObject* parent = nullptr);
    ~TrayItem() override;

    // False where the desktop shows no tray; the item is then never shown.
    static bool isAvailable();
    void show();
    void update(RecordingDriver::State state, double elapsed);
    // A short message from the item (where the tray shows them).
    void say(const QString& title, const QString& message);

    static QIcon glyph(RecordingDriver::State state);

signals:
    void activated(); // clicked: the shell shows the home window

private:
    QSystemTrayIcon* m_icon = nullptr;
    QMenu* m_menu = nullptr;
    RecordingDriver::State m_state = RecordingDriver::State::idle;
};

} // namespace plim
