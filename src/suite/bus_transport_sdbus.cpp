// The suite's messages as D-Bus signals on the session bus, through sdbus-c++.
//
// sd-bus is not thread-safe, so one thread of ours owns the connection: it runs the
// event loop and every call on the connection. Other threads hand it work and wait
// for the answer; work from a handler (already on that thread) runs in place.

#include "suite/bus_transport.h"

#include "base/text.h"

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <climits>
#include <cstring>
#include <ctime>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <type_traits>
#include <unistd.h>

namespace plim {

namespace {

struct BusDelivery {
    std::recursive_mutex lock; // held while the handler runs
    bool alive = true;
    BusTransport::Handler handler;
};

std::string describe(const sdbus::Error& error)
{
    std::string message = error.getMessage();
    return message.empty() ? error.getName() : message;
}

std::string connectFailure(const std::string& reason)
{
    return "Could not connect to the session bus (" + reason
        + "). The other suite apps will not see Plim's recording state, and nothing else is affected; check that a "
          "D-Bus session is running.";
}

// Tries a "unix:path=" or "unix:abstract=" address with a plain socket first: when
// sdbus-c++ fails to open an explicit address it leaks the half-made connection.
// Nothing when the address is of another kind or the socket answers.
std::optional<std::string> unixSocketProblem(const std::string& address)
{
    if (address.find(';') != std::string::npos)
        return std::nullopt;
    bool abstract = address.starts_with("unix:abstract=");
    if (!abstract && !address.starts_with("unix:path="))
        return std::nullopt;
    std::string value = address.substr(address.find('=') + 1);
    value = value.substr(0, value.find(','));
    std::string path = percentDecoded(value);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    size_t offset = abstract ? 1 : 0;
    if (path.empty() || path.size() + offset >= sizeof where.sun_path)
        return std::nullopt;
    std::memcpy(where.sun_path + offset, path.data(), path.size());
    socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + path.size() + (abstract ? 0 : 1));
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return std::nullopt;
    int result;
    while ((result = ::connect(fd, reinterpret_cast<sockaddr*>(&where), length)) < 0 && errno == EINTR) {
    }
    int err = errno;
    ::close(fd);
    if (result == 0)
        return std::nullopt;
    return std::string(std::strerror(err));
}

uint64_t monotonicMicros()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

class Core {
public:
    Core(std::unique_ptr<sdbus::IConnection> connection, int wakeFd)
        : m_connection(std::move(connection))
        , m_wakeFd(wakeFd)
    {
    }

    ~Core()
    {
        // Everything tied to the connection goes before it.
        m_matches.clear();
        m_objects.clear();
        m_busProxy.reset();
        m_connection.reset();
        ::close(m_wakeFd);
    }

    void setLoopThread(std::thread::id id) { m_loopId.store(id); }
    bool onLoopThread() const { return std::this_thread::get_id() == m_loopId.load(); }

    // Runs `work` on the loop thread and returns its result.
    template<typename F>
    auto onLoop(F work) -> std::invoke_result_t<F>
    {
        using R = std::invoke_result_t<F>;
        if (onLoopThread())
            return work();
        auto promise = std::make_shared<std::promise<R>>();
        auto future = promise->get_future();
        {
            std::lock_guard guard(m_tasksLock);
            if (m_stopping)
                return std::unexpected(Error{"The session bus connection is closing; nothing was sent."});
            m_tasks.push_back([promise, work]() mutable { promise->set_value(work()); });
        }
        wake();
        return future.get();
    }

    // Runs `work` on the loop thread later; dropped when the loop has stopped.
    void later(std::function<void()> work)
    {
        {
            std::lock_guard guard(m_tasksLock);
            if (m_stopping)
                return;
            m_tasks.push_back(std::move(work));
        }
        wake();
    }

    void stop()
    {
        {
            std::lock_guard guard(m_tasksLock);
            m_stopping = true;
        }
        wake();
    }

    void loop()
    {
        for (;;) {
            std::deque<std::function<void()>> tasks;
            bool stopping;
            {
                std::lock_guard guard(m_tasksLock);
                tasks.swap(m_tasks);
                stopping = m_stopping;
            }
            for (auto& task : tasks)
                task();
            if (stopping) {
                flushOnLoop();
                return;
            }
            process();
            waitForWork();
        }
    }

    Status post(std::string_view name, const std::string& payload)
    {
        auto names = splitBusName(name);
        if (!names)
            return fail("\"" + std::string(name) + "\" is not a valid message name; nothing was sent.");
        if (m_broken)
            return fail(brokenSentence());
        try {
            std::string path = "/" + names->first;
            for (char& c : path)
                if (c == '.')
                    c = '/';
            auto& object = m_objects[path];
            if (!object)
                object = sdbus::createObject(*m_connection, path);
            auto signal = object->createSignal(names->first, names->second);
            signal << payload;
            object->emitSignal(signal);
        } catch (const sdbus::Error& error) {
            return fail("Could not send " + std::string(name) + " on the session bus (" + describe(error)
                + "); nothing else is affected.");
        }
        return flushOnLoop();
    }

    Result<uint64_t> addMatch(std::string_view name, std::shared_ptr<BusDelivery> delivery)
    {
        auto names = splitBusName(name);
        if (!names)
            return fail("\"" + std::string(name) + "\" is not a valid message name; nothing is being listened to.");
        if (m_broken)
            return fail(brokenSentence());
        std::string rule = "type='signal',interface='" + names->first + "',member='" + names->second + "'";
        try {
            auto slot = m_connection->addMatch(rule, [delivery](sdbus::Message& message) {
                std::string payload, sender;
                try {
                    message >> payload;
                    sender = message.getSender();
                } catch (...) {
                    return; // not a message of ours
                }
                std::lock_guard guard(delivery->lock);
                if (!delivery->alive)
                    return;
                try {
                    delivery->handler(payload, sender);
                } catch (...) {
                    // A failing handler must not take the loop down with it.
                }
            });
            uint64_t id = m_nextMatch++;
            m_matches.emplace(id, std::move(slot));
            return id;
        } catch (const sdbus::Error& error) {
            return fail("Could not listen for " + std::string(name) + " on the session bus (" + describe(error)
                + "); messages of other suite apps will not be seen.");
        }
    }

    void removeMatch(uint64_t id) { m_matches.erase(id); }

    Result<bool> isConnected(const std::string& sender)
    {
        if (m_broken)
            return fail(brokenSentence());
        try {
            if (sender == m_connection->getUniqueName())
                return true;
            if (!m_busProxy)
                m_busProxy = sdbus::createProxy(*m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
            bool owned = false;
            m_busProxy->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus").withArguments(sender).storeResultsTo(owned);
            return owned;
        } catch (const sdbus::Error& error) {
            return fail("Could not ask the session bus whether " + sender + " is still there (" + describe(error) + ").");
        }
    }

    Status flushOnLoop()
    {
        // Writing pending output means processing the bus, which a handler already is.
        if (m_dispatching || m_broken)
            return m_broken ? fail(brokenSentence()) : Status{};
        try {
            for (int i = 0; i < 100; ++i) {
                auto poll = m_connection->getEventLoopPollData();
                if (!(poll.events & POLLOUT))
                    return {};
                pollfd fd{poll.fd, POLLOUT, 0};
                ::poll(&fd, 1, 100);
                process();
                if (m_broken)
                    break;
            }
        } catch (const sdbus::Error& error) {
            m_broken = describe(error);
        }
        if (m_broken)
            return fail(brokenSentence());
        return fail("The session bus did not take the message in time; it may arrive late.");
    }

private:
    std::string brokenSentence() const
    {
        return "The connection to the session bus was lost (" + m_broken.value_or("unknown reason")
            + "); the suite's messages stop until the bus is connected again.";
    }

    void wake()
    {
        uint64_t one = 1;
        while (::write(m_wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }

    void process()
    {
        if (m_broken)
            return;
        m_dispatching = true;
        try {
            while (m_connection->processPendingRequest()) {
            }
        } catch (const sdbus::Error& error) {
            m_broken = describe(error);
        }
        m_dispatching = false;
    }

    void waitForWork()
    {
        pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {-1, 0, 0}};
        nfds_t count = 1;
        int timeout = -1;
        if (!m_broken) {
            try {
                auto poll = m_connection->getEventLoopPollData();
                fds[1] = {poll.fd, poll.events, 0};
                count = 2;
                if (poll.timeout_usec != UINT64_MAX) {
                    uint64_t now = monotonicMicros();
                    uint64_t left = poll.timeout_usec > now ? poll.timeout_usec - now : 0;
                    timeout = static_cast<int>(std::min<uint64_t>((left + 999) / 1000, INT_MAX));
                }
            } catch (const sdbus::Error& error) {
                m_broken = describe(error);
            }
        }
        if (::poll(fds, count, timeout) > 0 && (fds[0].revents & POLLIN)) {
            uint64_t value;
            (void)!::read(m_wakeFd, &value, sizeof value);
        }
    }

    std::unique_ptr<sdbus::IConnection> m_connection;
    int m_wakeFd;
    std::atomic<std::thread::id> m_loopId;

    // Loop thread only.
    std::map<std::string, std::unique_ptr<sdbus::IObject>> m_objects;
    std::unique_ptr<sdbus::IProxy> m_busProxy;
    std::map<uint64_t, sdbus::Slot> m_matches;
    uint64_t m_nextMatch = 1;
    std::optional<std::string> m_broken;
    bool m_dispatching = false;

    std::mutex m_tasksLock;
    std::deque<std::function<void()>> m_tasks;
    bool m_stopping = false;
};

class SdbusSubscription final : public BusTransport::Subscription {
public:
    SdbusSubscription(std::weak_ptr<Core> core, uint64_t id, std::shared_ptr<BusDelivery> delivery)
        : m_core(std::move(core))
        , m_id(id)
        , m_delivery(std::move(delivery))
    {
    }

    ~SdbusSubscription() override
    {
        {
            std::lock_guard guard(m_delivery->lock);
            m_delivery->alive = false;
        }
        if (auto core = m_core.lock()) {
            uint64_t id = m_id;
            std::weak_ptr<Core> weak = core;
            core->later([weak, id] {
                if (auto c = weak.lock())
                    c->removeMatch(id);
            });
        }
    }

private:
    std::weak_ptr<Core> m_core;
    uint64_t m_id;
    std::shared_ptr<BusDelivery> m_delivery;
};

class SdbusTransport final : public BusTransport {
public:
    explicit SdbusTransport(std::shared_ptr<Core> core) : m_core(std::move(core))
    {
        m_thread = std::thread([core = m_core] { core->loop(); });
        m_core->setLoopThread(m_thread.get_id());
    }

    ~SdbusTransport() override
    {
        m_core->stop();
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach(); // the loop keeps its core alive until it returns
        else
            m_thread.join();
    }

    Status post(std::string_view name, const std::string& payload) override
    {
        std::string copy(name);
        return m_core->onLoop([core = m_core.get(), copy, payload] { return core->post(copy, payload); });
    }

    Result<std::unique_ptr<Subscription>> subscribe(std::string_view name, Handler handler) override
    {
        auto delivery = std::make_shared<BusDelivery>();
        delivery->handler = std::move(handler);
        std::string copy(name);
        auto id = m_core->onLoop([core = m_core.get(), copy, delivery] { return core->addMatch(copy, delivery); });
        if (!id)
            return std::unexpected(id.error());
        return std::unique_ptr<Subscription>(new SdbusSubscription(m_core, *id, delivery));
    }

    Result<bool> isConnected(const std::string& sender) override
    {
        return m_core->onLoop([core = m_core.get(), sender] { return core->isConnected(sender); });
    }

    Status flush() override
    {
        return m_core->onLoop([core = m_core.get()] { return core->flushOnLoop(); });
    }

private:
    std::shared_ptr<Core> m_core;
    std::thread m_thread;
};

} // namespace

Result<std::shared_ptr<BusTransport>> connectSessionBus(std::optional<std::string> address)
{
    if (address) {
        if (auto problem = unixSocketProblem(*address))
            return fail(connectFailure(*problem));
    }
    std::unique_ptr<sdbus::IConnection> connection;
    try {
        connection = address ? sdbus::createSessionBusConnectionWithAddress(*address) : sdbus::createSessionBusConnection();
    } catch (const sdbus::Error& error) {
        return fail(connectFailure(describe(error)));
    }
    int wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd < 0)
        return fail("Could not prepare the session bus connection (" + std::string(strerror(errno))
            + "); the suite's messages are off, and nothing else is affected.");
    auto core = std::make_shared<Core>(std::move(connection), wakeFd);
    return std::shared_ptr<BusTransport>(std::make_shared<SdbusTransport>(std::move(core)));
}

} // namespace plim
