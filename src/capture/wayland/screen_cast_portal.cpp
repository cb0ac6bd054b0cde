// The screen cast portal over sd-bus, driven on the caller's thread: each request's answer
// is subscribed to, the call made, then the connection pumped until the answer comes.

#include "capture/wayland/screen_cast_portal.h"

#include "base/clock.h"

#include <sdbus-c++/sdbus-c++.h>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>

namespace plim {

namespace {

constexpr const char* portalName = "org.freedesktop.portal.Desktop";
constexpr const char* portalPath = "/org/freedesktop/portal/desktop";
constexpr const char* screenCast = "org.freedesktop.portal.ScreenCast";
constexpr double answerWait = 20; // requests the desktop answers without asking the user

using Options = std::map<std::string, sdbus::Variant>;

std::string describe(const sdbus::Error& error)
{
    std::string text = error.getMessage().empty() ? error.getName() : error.getMessage();
    while (!text.empty() && (text.back() == '.' || text.back() == '\n'))
        text.pop_back();
    return text;
}

template<typename T>
std::optional<T> option(const Options& options, const std::string& key)
{
    auto found = options.find(key);
    if (found == options.end() || !found->second.containsValueOfType<T>())
        return std::nullopt;
    return found->second.get<T>();
}

} // namespace

struct ScreenCastPortal::Bus {
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> portal;
    std::string sender; // the unique name as request paths spell it
    int requests = 0;
    sdbus::Slot closedWatch; // the started session's Closed signal
    std::shared_ptr<bool> closed = std::make_shared<bool>(false);

    struct Answer {
        std::optional<uint32_t> code;
        Options results;
    };

    // Dispatches what arrived until `done` holds or the uptime `until` passes.
    bool pumpUntil(const std::function<bool()>& done, double until)
    {
        while (!done()) {
            while (connection->processPendingRequest())
                if (done())
                    return true;
            const double left = until - systemUptime();
            if (left <= 0)
                return false;
            auto wait = connection->getEventLoopPollData();
            pollfd fd{wait.fd, wait.events, 0};
            ::poll(&fd, 1, int(std::ceil(std::min(left, 0.25) * 1000)));
        }
        return true;
    }

    // Makes one portal request: `call` gets the handle token to pass and returns the
    // request's path. The answer's results, or the sentence for a refusal.
    Result<Options> request(const std::string& what, const std::function<sdbus::ObjectPath(const std::string&)>& call,
        double wait)
    {
        const std::string token = "plim" + std::to_string(getpid()) + "_" + std::to_string(++requests);
        const std::string path = "/org/freedesktop/portal/desktop/request/" + sender + "/" + token;
        auto answer = std::make_shared<Answer>();
        auto subscribe = [&](const std::string& at) {
            return connection->addMatch(
                "type='signal',interface='org.freedesktop.portal.Request',member='Response',path='" + at + "'",
                [answer](sdbus::Message& message) {
                    uint32_t code = 2;
                    Options results;
                    try {
                        message >> code >> results;
                    } catch (const sdbus::Error&) {
                        code = 2;
                    }
                    answer->code = code;
                    answer->results = std::move(results);
                });
        };
        std::vector<sdbus::Slot> slots;
        try {
            slots.push_back(subscribe(path));
            const sdbus::ObjectPath handle = call(token);
            if (handle != path) // a portal that names its requests itself
                slots.push_back(subscribe(handle));
        } catch (const sdbus::Error& error) {
            return fail("The desktop portal refused to " + what + " (" + describe(error) + ").", Error::Kind::refused);
        }
        if (!pumpUntil([&] { return answer->code.has_value(); }, systemUptime() + wait))
            return fail("The desktop portal did not answer when asked to " + what + ".", Error::Kind::failed);
        if (*answer->code == 1)
            return fail("The desktop's screen-sharing dialog was cancelled, so Plim may not read the screen.",
                Error::Kind::stopped);
        if (*answer->code != 0)
            return fail("The desktop portal refused to " + what + ".", Error::Kind::refused);
        return std::move(answer->results);
    }
};

ScreenCastPortal::ScreenCastPortal(std::unique_ptr<Bus> bus) : m_bus(std::move(bus)) {}

ScreenCastPortal::~ScreenCastPortal()
{
    closeSession();
    if (m_bus)
        m_bus->portal.reset();
}

Result<std::unique_ptr<ScreenCastPortal>> ScreenCastPortal::connect()
{
    auto bus = std::make_unique<Bus>();
    try {
        bus->connection = sdbus::createSessionBusConnection();
    } catch (const sdbus::Error& error) {
        return fail("There is no session bus to reach the desktop portal through (" + describe(error) + ").",
            Error::Kind::missing);
    }
    std::string unique = bus->connection->getUniqueName();
    if (!unique.empty() && unique.front() == ':')
        unique.erase(0, 1);
    std::replace(unique.begin(), unique.end(), '.', '_');
    bus->sender = unique;
    std::unique_ptr<ScreenCastPortal> portal(new ScreenCastPortal(nullptr));
    try {
        bus->portal = sdbus::createProxy(*bus->connection, portalName, portalPath);
        portal->m_version = bus->portal->getProperty("version").onInterface(screenCast).get<uint32_t>();
        portal->m_sourceTypes = bus->portal->getProperty("AvailableSourceTypes").onInterface(screenCast).get<uint32_t>();
        portal->m_cursorModes = bus->portal->getProperty("AvailableCursorModes").onInterface(screenCast).get<uint32_t>();
    } catch (const sdbus::Error& error) {
        return fail("The desktop portal offers no screen cast on this session bus (" + describe(error) + ").",
            Error::Kind::missing);
    }
    portal->m_bus = std::move(bus);
    return portal;
}

Result<ScreenCastPortal::Cast> ScreenCastPortal::start(SourceType type, const std::string& restoreToken, double choiceWait)
{
    closeSession();
    Bus& bus = *m_bus;
    sdbus::IProxy& portal = *bus.portal;

    auto created = PLIM_TRY(bus.request("start a screen-sharing session", [&](const std::string& token) {
        Options options{{"handle_token", sdbus::Variant(token)}, {"session_handle_token", sdbus::Variant(token)}};
        sdbus::ObjectPath handle;
        portal.callMethod("CreateSession").onInterface(screenCast).withArguments(options).storeResultsTo(handle);
        return handle;
    }, answerWait));
    auto session = option<std::string>(created, "session_handle");
    if (!session)
        return fail("The desktop portal started a screen-sharing session without naming it.", Error::Kind::failed);
    m_session = *session;
    *bus.closed = false;
    try {
        bus.closedWatch = bus.connection->addMatch(
            "type='signal',interface='org.freedesktop.portal.Session',member='Closed',path='" + m_session + "'",
            [closed = bus.closed](sdbus::Message&) { *closed = true; });
    } catch (const sdbus::Error& error) {
        return fail("The desktop portal's screen-sharing session could not be watched (" + describe(error) + ").",
            Error::Kind::failed);
    }

    Cast cast;
    cast.cursor = (m_cursorModes & metadata) ? metadata : (m_cursorModes & embedded) ? embedded : hidden;
    PLIM_TRY(bus.request(type == window ? "offer a window to record" : "offer a display to record",
        [&](const std::string& token) {
            Options options{{"handle_token", sdbus::Variant(token)}, {"types", sdbus::Variant(uint32_t(type))},
                {"multiple", sdbus::Variant(false)}};
            if (m_cursorModes)
                options["cursor_mode"] = sdbus::Variant(uint32_t(cast.cursor));
            if (m_version >= 4) {
                options["persist_mode"] = sdbus::Variant(uint32_t(2));
                if (!restoreToken.empty())
                    options["restore_token"] = sdbus::Variant(restoreToken);
            }
            sdbus::ObjectPath handle;
            portal.callMethod("SelectSources").onInterface(screenCast)
                .withArguments(sdbus::ObjectPath(m_session), options).storeResultsTo(handle);
            return handle;
        },
        answerWait));

    auto started = PLIM_TRY(bus.request("share the screen", [&](const std::string& token) {
        Options options{{"handle_token", sdbus::Variant(token)}};
        sdbus::ObjectPath handle;
        portal.callMethod("Start").onInterface(screenCast)
            .withArguments(sdbus::ObjectPath(m_session), std::string(), options).storeResultsTo(handle);
        return handle;
    }, choiceWait));
    using StreamEntry = sdbus::Struct<uint32_t, Options>;
    auto streams = option<std::vector<StreamEntry>>(started, "streams");
    if (!streams || streams->empty())
        return fail("The desktop shared no screen.", Error::Kind::refused);
    for (const auto& entry : *streams) {
        Stream stream;
        stream.node = std::get<0>(entry);
        const Options& properties = std::get<1>(entry);
        if (auto at = option<sdbus::Struct<int32_t, int32_t>>(properties, "position"))
            stream.position = Point{double(std::get<0>(*at)), double(std::get<1>(*at))};
        if (auto size = option<sdbus::Struct<int32_t, int32_t>>(properties, "size"))
            stream.size = Size{double(std::get<0>(*size)), double(std::get<1>(*size))};
        stream.sourceType = option<uint32_t>(properties, "source_type").value_or(type);
        cast.streams.push_back(stream);
    }
    cast.restoreToken = option<std::string>(started, "restore_token").value_or("");

    try {
        sdbus::UnixFd fd;
        portal.callMethod("OpenPipeWireRemote").onInterface(screenCast)
            .withArguments(sdbus::ObjectPath(m_session), Options{}).storeResultsTo(fd);
        cast.pipeWireFd = fd.release();
    } catch (const sdbus::Error& error) {
        return fail("The desktop portal would not open the screen's PipeWire stream (" + describe(error) + ").",
            Error::Kind::refused);
    }
    return cast;
}

bool ScreenCastPortal::closedByDesktop()
{
    if (!m_bus || m_session.empty())
        return false;
    try {
        while (!*m_bus->closed && m_bus->connection->processPendingRequest()) {
        }
    } catch (const sdbus::Error&) {
        return true; // the bus itself is gone, and the session with it
    }
    return *m_bus->closed;
}

void ScreenCastPortal::closeSession()
{
    if (m_session.empty() || !m_bus)
        return;
    m_bus->closedWatch.reset();
    if (*m_bus->closed) {
        m_session.clear();
        return;
    }
    try {
        auto session = sdbus::createProxy(*m_bus->connection, portalName, m_session);
        session->callMethod("Close").onInterface("org.freedesktop.portal.Session");
    } catch (const sdbus::Error&) {
        // Already closed by the desktop; the connection's end closes it in any case.
    }
    m_session.clear();
}

} // namespace plim
