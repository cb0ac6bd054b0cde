#pragma once
// The desktop portal's screen cast (org.freedesktop.portal.ScreenCast) on the session bus:
// one session that asks the desktop for a monitor or a window, hands back the PipeWire
// remote its pictures flow through, and a restore token that lets a later session skip the
// desktop's dialog. Private to capture/wayland/.
//
// Contract: connect() answers at once (it only asks the portal what it offers). start()
// blocks the calling thread until the desktop answers: at once with a restore token it
// accepts, else when the user has chosen in the desktop's dialog (up to `choiceWait`
// seconds). Each portal request is answered by a Request.Response signal, which is
// subscribed to before the call; the signals arrive on the connection's own thread. The
// session stays open, and the pictures flow, until the object is destroyed or the desktop
// closes it. After start(), closedByDesktop() may be called from one thread at a time (the
// screen source's): it reads what the bus has delivered without waiting.

#include "base/error.h"
#include "base/geometry.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plim {

class ScreenCastPortal {
public:
    enum SourceType : uint32_t { monitor = 1, window = 2 };
    enum CursorMode : uint32_t { hidden = 1, embedded = 2, metadata = 4 };

    // A stream of the started cast: its PipeWire node, and where it lies in global points
    // (a window's stream has a size and no position).
    struct Stream {
        uint32_t node = 0;
        std::optional<Point> position;
        std::optional<Size> size;
        uint32_t sourceType = monitor;
    };

    struct Cast {
        int pipeWireFd = -1; // the caller's to close
        std::vector<Stream> streams;
        std::string restoreToken; // empty when the portal hands out none
        CursorMode cursor = hidden;
    };

    // The portal on this session's bus, or the sentence saying why there is none.
    static Result<std::unique_ptr<ScreenCastPortal>> connect();
    ~ScreenCastPortal();
    ScreenCastPortal(const ScreenCastPortal&) = delete;
    ScreenCastPortal& operator=(const ScreenCastPortal&) = delete;

    uint32_t sourceTypes() const { return m_sourceTypes; }
    uint32_t cursorModes() const { return m_cursorModes; }

    // Creates the session, selects a source of `type` (restored from `restoreToken` when
    // the desktop still knows it), starts it and opens its PipeWire remote. The pointer is
    // asked for as metadata where the portal offers it, else drawn in.
    Result<Cast> start(SourceType type, const std::string& restoreToken, double choiceWait = 300);

    // Whether the desktop has closed the started session (the user stopped sharing from the
    // desktop, or the desktop ended it).
    bool closedByDesktop();

private:
    struct Bus;
    explicit ScreenCastPortal(std::unique_ptr<Bus> bus);
    void closeSession();

    std::unique_ptr<Bus> m_bus;
    uint32_t m_sourceTypes = 0;
    uint32_t m_cursorModes = 0;
    uint32_t m_version = 0;
    std::string m_session; // the session's object path, while open
};

} // namespace plim
