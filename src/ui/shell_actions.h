#pragma once
// The commands the tray menu, the home window's menus and the live bar share, made once
// by the shell so that each shows the same enabled state and text.

class QAction;

namespace plim {

struct ShellActions {
    QAction* record = nullptr;      // records the last choice at once
    QAction* newRecording = nullptr; // opens the record panel
    QAction* recordArea = nullptr;
    QAction* stop = nullptr;
    QAction* pause = nullptr; // "Pause" or "Resume"
    QAction* mark = nullptr;
    QAction* goLive = nullptr;   // the composed picture to the monitor and the cameras
    QAction* stopLive = nullptr;
    QAction* openLibrary = nullptr;
    QAction* showFolder = nullptr;
    QAction* settings = nullptr;
    QAction* quit = nullptr;
};

} // namespace plim
