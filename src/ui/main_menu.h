#pragma once
// The home window's menu bar (Plim, File, View, Window), its repair (a Close Window item on
// Ctrl+W and an Enter Full Screen item are added where missing, at launch and on every
// activation) and the PLIM_PROBE_MAIN_MENU=1 probe, which prints "Menu ▸ Item" for every
// item 1.5 s after start and quits with status 0.
//
// Threads: GUI thread.

#include "ui/shell_actions.h"

#include <string>
#include <vector>

class QMainWindow;
class QMenuBar;

namespace plim {

void buildMainMenu(QMainWindow* window, const ShellActions& actions);

// Idempotent: adds only what is missing.
void repairMainMenu(QMenuBar* bar);

// One "Top ▸ Item" line for each item that is not a separator, in menu order.
std::vector<std::string> mainMenuLines(const QMenuBar* bar);

// When PLIM_PROBE_MAIN_MENU is exactly "1": activates the window, prints the lines after
// 1.5 s and quits the application with status 0 (at once for an empty menu bar).
void probeMainMenuIfAsked(QMainWindow* window);

} // namespace plim
