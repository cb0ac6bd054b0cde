#pragma once
// The home window: the library as a grid of posters with each plim's name, length and
// date, newest first, kept live as the library folder changes. A plim is opened with a
// double click or Enter; its menu renames it, shares it, shows it in the file manager or
// moves it to the Trash. An empty library says so and offers to record.
//
// Threads: construct, call and destroy on the GUI thread. The library's watch calls back on
// its own thread and hops here; posters and lengths are read (and missing or stale posters
// drawn) on one worker thread of the window's own, and hop back the same way. The
// destructor waits for a poster being drawn to finish.

#include "library/plim_record.h"

#include <QWidget>

#include <filesystem>
#include <functional>
#include <memory>

class QAction;
class QHBoxLayout;
class QLabel;
class QListView;
class QPushButton;
class QStackedWidget;

namespace plim {

class PlimGridModel;
class PlimStore;

class HomeWindow : public QWidget {
    Q_OBJECT
public:
    explicit HomeWindow(std::filesystem::path libraryFolder, QWidget* parent = nullptr);
    ~HomeWindow() override;

    std::function<void(const std::filesystem::path& movie)> onOpen;
    std::function<void(const std::filesystem::path& movie)> onShare;
    std::function<void()> onRecord;

    // Reads the library again now (the folder's watch does this by itself).
    void reload();
    // The plims shown, newest first.
    std::vector<PlimRecord> plims() const;
    // A sentence in the line under the grid (failures of the window's own actions).
    void say(const QString& sentence);
    // A button for one of the shell's commands in the header, before Record.
    void addHeaderAction(QAction* action);

    // The actions of a plim's menu, also used by the keyboard (F2, Delete).
    void openPlim(const PlimRecord& plim);
    void sharePlim(const PlimRecord& plim);
    void renamePlim(const PlimRecord& plim, const QString& newName);
    void trashPlim(const PlimRecord& plim);
    void showPlimInFileManager(const PlimRecord& plim);

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    void showMenu(const QPoint& at);
    std::optional<PlimRecord> current() const;
    void requestDetails();

    std::filesystem::path m_folder;
    std::unique_ptr<PlimStore> m_store;
    PlimGridModel* m_model = nullptr;
    QListView* m_grid = nullptr;
    QStackedWidget* m_pages = nullptr;
    QLabel* m_count = nullptr;
    QLabel* m_message = nullptr;
    QHBoxLayout* m_header = nullptr;
    std::string m_renamedTo; // selected once the library lists it
    struct Worker;
    std::unique_ptr<Worker> m_worker;
};

} // namespace plim
