#pragma once
// Where the shell sends the user: one window per destination (one per plim for the plim's
// own windows), made by the factory registered for it, raised when it already shows. The
// home window is a main window with the menu bar around whatever its factory makes. A
// destination without a factory shows a plain window titled after it.
//
// Threads: GUI thread.

#include "ui/shell_actions.h"

#include <QMainWindow>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QWidget>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace plim {

// What a window is opened for.
struct RouteRequest {
    std::optional<std::filesystem::path> movie; // the plim, for stagedMoment and share
    bool stagedMoment = false;                  // the stop flow's lift of the last frame
    std::optional<std::string> notice;          // a sentence the window shows first
    std::string tip;                            // for the record panel
};

class WindowRouter : public QObject {
    Q_OBJECT
public:
    enum class Destination { recordPanel, stagedMoment, share, home, settings, liveBar };

    // Makes the destination's window (the home window's central widget); the router owns it.
    using Request = RouteRequest;
    using Factory = std::function<QWidget*(const Request&)>;

    explicit WindowRouter(const ShellActions& actions, QObject* parent = nullptr);
    ~WindowRouter() override;

    void setFactory(Destination destination, Factory factory);
    QWidget* show(Destination destination, const Request& request = {});
    // The window showing for the destination (and plim), or null.
    QWidget* window(Destination destination, const std::optional<std::filesystem::path>& movie = {}) const;
    QMainWindow* home() const { return m_home; }
    // A line at the foot of the home window ("There is no tray on this desktop...").
    void setHomeNotice(const QString& sentence);

    static QString title(Destination destination);

private:
    QWidget* make(Destination destination, const Request& request);

    ShellActions m_actions;
    std::map<Destination, Factory> m_factories;
    std::map<std::pair<Destination, std::string>, QPointer<QWidget>> m_windows;
    QPointer<QMainWindow> m_home;
};

} // namespace plim
