#pragma once
// One Plim per desktop session: the running application owns app.plim.Plim on the session
// bus and answers org.freedesktop.Application at /app/plim/Plim; a second start hands its
// verb over through ActivateAction (or Activate without one) and ends.
//
// Threads: GUI thread. forwardToRunningInstance() blocks for one bus round trip and needs a
// QCoreApplication (a second start makes no QApplication: it never opens a window).

#include <QObject>
#include <QStringList>

#include <functional>
#include <optional>
#include <string>

namespace plim {

inline constexpr const char* applicationBusName = "app.plim.Plim";
inline constexpr const char* applicationObjectPath = "/app/plim/Plim";

class ApplicationBus : public QObject {
    Q_OBJECT
public:
    enum class Claim { owned, taken, noBus };

    explicit ApplicationBus(QObject* parent = nullptr);

    // Exports the interface and asks for the name; `taken` when another Plim has it.
    Claim claim();

    // An action's name ("toggle"), or empty for a plain activation.
    std::function<void(const QString& action)> onAction;
    std::function<void(const QStringList& uris)> onOpen;
};

enum class Forwarded { delivered, noInstance, noBus };

// Sends the action (or a plain activation) to the Plim already running on this session's
// bus, then the files to open (file URIs) through Open; with files and no action, only
// Open is sent. Fails with a sentence when one runs but did not take it.
struct ForwardOutcome {
    Forwarded result = Forwarded::noInstance;
    std::optional<std::string> failure;
};
ForwardOutcome forwardToRunningInstance(const std::optional<std::string>& action, const QStringList& files = {});

} // namespace plim
