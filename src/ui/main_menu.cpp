#include "ui/main_menu.h"

#include <QAction>
#include <QApplication>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QTimer>

#include <cstdlib>
#include <iostream>

namespace plim {

namespace {

QString plainTitle(QString text)
{
    return text.replace("&&", QChar(0x1)).remove('&').replace(QChar(0x1), "&");
}

QMenu* topMenu(QMenuBar* bar, const QString& title)
{
    for (QAction* action : bar->actions())
        if (action->menu() && plainTitle(action->text()) == title)
            return action->menu();
    return nullptr;
}

bool anyItem(QMenuBar* bar, const std::function<bool(QAction*)>& matches)
{
    for (QAction* top : bar->actions())
        if (QMenu* menu = top->menu())
            for (QAction* item : menu->actions())
                if (matches(item))
                    return true;
    return false;
}

// Appends after a separator unless the menu is empty or already ends with one.
void appendToMenu(QMenu* menu, QAction* action)
{
    const auto items = menu->actions();
    if (!items.isEmpty() && !items.last()->isSeparator())
        menu->addSeparator();
    menu->addAction(action);
}

QWidget* targetWindow(QMenuBar* bar)
{
    QWidget* active = QApplication::activeWindow();
    return active ? active : bar->window();
}

} // namespace

void buildMainMenu(QMainWindow* window, const ShellActions& actions)
{
    QMenuBar* bar = window->menuBar();
    QMenu* plim = bar->addMenu("&Plim");
    plim->addAction(actions.settings);
    plim->addSeparator();
    plim->addAction(actions.quit);
    QMenu* file = bar->addMenu("&File");
    file->addAction(actions.newRecording);
    file->addAction(actions.record);
    file->addAction(actions.recordArea);
    file->addAction(actions.stop);
    file->addAction(actions.pause);
    file->addAction(actions.mark);
    file->addSeparator();
    file->addAction(actions.goLive);
    file->addAction(actions.stopLive);
    file->addSeparator();
    file->addAction(actions.showFolder);
    QMenu* windows = bar->addMenu("&Window");
    QAction* minimize = windows->addAction("Minimize");
    minimize->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_M));
    QObject::connect(minimize, &QAction::triggered, bar, [bar] { targetWindow(bar)->showMinimized(); });
    windows->addAction(actions.openLibrary);
}

void repairMainMenu(QMenuBar* bar)
{
    const QKeySequence closeKey(Qt::CTRL | Qt::Key_W);
    if (!anyItem(bar, [&](QAction* a) { return a->shortcut() == closeKey; })) {
        auto* close = new QAction("Close Window", bar);
        close->setShortcut(closeKey);
        QObject::connect(close, &QAction::triggered, bar, [bar] { targetWindow(bar)->close(); });
        if (QMenu* file = topMenu(bar, "File")) {
            appendToMenu(file, close);
        } else {
            auto* menu = new QMenu("File", bar);
            menu->addAction(close);
            const auto tops = bar->actions();
            bar->insertMenu(tops.size() > 1 ? tops[1] : nullptr, menu);
        }
    }
    if (!anyItem(bar, [](QAction* a) { return a->objectName() == "toggleFullScreen"; })) {
        auto* full = new QAction("Enter Full Screen", bar);
        full->setObjectName("toggleFullScreen");
        full->setShortcut(QKeySequence(Qt::CTRL | Qt::META | Qt::Key_F));
        QObject::connect(full, &QAction::triggered, bar, [bar, full] {
            QWidget* window = targetWindow(bar);
            if (window->isFullScreen())
                window->showNormal();
            else
                window->showFullScreen();
            full->setText(window->isFullScreen() ? "Exit Full Screen" : "Enter Full Screen");
        });
        if (QMenu* view = topMenu(bar, "View")) {
            appendToMenu(view, full);
        } else {
            auto* menu = new QMenu("View", bar);
            menu->addAction(full);
            QMenu* windows = topMenu(bar, "Window");
            bar->insertMenu(windows ? windows->menuAction() : nullptr, menu);
        }
    }
}

std::vector<std::string> mainMenuLines(const QMenuBar* bar)
{
    std::vector<std::string> lines;
    for (QAction* top : bar->actions()) {
        if (top->isSeparator())
            continue;
        if (!top->menu())
            continue; // an item without a menu has no items to list
        QString title = plainTitle(top->menu()->title());
        for (QAction* item : top->menu()->actions())
            if (!item->isSeparator())
                lines.push_back(title.toStdString() + " ▸ " + plainTitle(item->text()).toStdString());
    }
    return lines;
}

void probeMainMenuIfAsked(QMainWindow* window)
{
    const char* probe = std::getenv("PLIM_PROBE_MAIN_MENU");
    if (!probe || std::string(probe) != "1")
        return;
    QMenuBar* bar = window->menuBar();
    if (bar->actions().isEmpty()) {
        QTimer::singleShot(0, qApp, [] { QCoreApplication::exit(0); });
        return;
    }
    window->show();
    window->raise();
    window->activateWindow();
    QTimer::singleShot(1500, qApp, [bar] {
        for (const auto& line : mainMenuLines(bar))
            std::cout << line << "\n";
        std::cout << std::flush;
        QCoreApplication::exit(0);
    });
}

} // namespace plim
