#pragma once
// The settings window: the library folder (and the move of an old "Plims" library to
// "Plim"), capture quality, frame rate, countdown, captions for new plims, hiding the
// desktop's icons while recording where the desktop allows it, better captions with their
// model's download (ui/better_captions_panel.h), and the control verbs to
// bind in the desktop's shortcut settings, each with a command to copy.
//
// Threads: construct, call and destroy on the GUI thread. Every change is written at once;
// a change that could not be kept says so in the window.

#include "library/storage_root.h"

#include <QWidget>

#include <filesystem>
#include <functional>

class QCheckBox;
class QLabel;
class QPushButton;

namespace plim {

class SettingsStore;

class SettingsWindow : public QWidget {
    Q_OBJECT
public:
    static constexpr const char* hideIconsKey = "hideDesktopIcons";

    SettingsWindow(SettingsStore& settings, StorageRoot root, std::filesystem::path looksFile, QWidget* parent = nullptr);

    // The library moved to this folder (after the "Plims" to "Plim" move).
    std::function<void(const std::filesystem::path& folder)> onLibraryMoved;

    // Whether this desktop lets Plim hide its icons (GNOME's desktop icons extension on the
    // session bus).
    static bool desktopIconsCanHide();

private:
    void showLibrary();
    void refreshLibrary();
    void moveLibrary();
    void say(const QString& sentence);

    SettingsStore& m_settings;
    StorageRoot m_root;
    std::filesystem::path m_looksFile;
    QLabel* m_folder = nullptr;
    QLabel* m_legacy = nullptr;
    QPushButton* m_move = nullptr;
    QLabel* m_message = nullptr;
};

} // namespace plim
