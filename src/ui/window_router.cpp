#include "ui/window_router.h"

#include "ui/main_menu.h"

#include <QGuiApplication>
#include <QLabel>
#include <QMainWindow>
#include <QStatusBar>

namespace plim {

WindowRouter::WindowRouter(const ShellActions& actions, QObject* parent) : QObject(parent), m_actions(actions)
{
    connect(qGuiApp, &QGuiApplication::applicationStateChanged, this, [this](Qt::ApplicationState state) {
        if (state == Qt::ApplicationActive && m_home)
            repairMainMenu(m_home->menuBar());
    });
}

WindowRouter::~WindowRouter()
{
    for (auto& [key, window] : m_windows)
        delete window.data();
}

void WindowRouter::setFactory(Destination destination, Factory factory) { m_factories[destination] = std::move(factory); }

QString WindowRouter::title(Destination destination)
{
    switch (destination) {
    case Destination::recordPanel: return "Record";
    case Destination::stagedMoment: return "Plim";
    case Destination::share: return "Share";
    case Destination::home: return "Plim";
    case Destination::settings: return "Settings";
    case Destination::liveBar: return "Live Bar";
    }
    return "Plim";
}

QWidget* WindowRouter::window(Destination destination, const std::optional<std::filesystem::path>& movie) const
{
    auto found = m_windows.find({destination, movie ? movie->string() : std::string()});
    return found == m_windows.end() ? nullptr : found->second.data();
}

QWidget* WindowRouter::make(Destination destination, const Request& request)
{
    QWidget* made = nullptr;
    if (auto factory = m_factories.find(destination); factory != m_factories.end() && factory->second)
        made = factory->second(request);
    if (destination == Destination::home) {
        auto* home = new QMainWindow;
        home->setObjectName("home");
        home->setWindowTitle("Plim");
        home->setCentralWidget(made ? made : new QLabel("Home"));
        home->resize(900, 600);
        buildMainMenu(home, m_actions);
        repairMainMenu(home->menuBar());
        m_home = home;
        return home;
    }
    if (!made) {
        made = new QWidget;
        made->setWindowTitle(title(destination));
        made->resize(420, 260);
    }
    return made;
}

QWidget* WindowRouter::show(Destination destination, const Request& request)
{
    auto key = std::make_pair(destination, request.movie ? request.movie->string() : std::string());
    QPointer<QWidget>& slot = m_windows[key];
    if (!slot)
        slot = make(destination, request);
    slot->show();
    slot->raise();
    slot->activateWindow();
    return slot.data();
}

void WindowRouter::setHomeNotice(const QString& sentence)
{
    if (!m_home)
        show(Destination::home);
    auto* line = new QLabel(sentence);
    line->setObjectName("homeNotice");
    line->setWordWrap(true);
    m_home->statusBar()->addWidget(line, 1);
}

} // namespace plim
