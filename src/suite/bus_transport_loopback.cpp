// Messages within one process: a queue and one delivery thread, with the same
// guarantees as the session bus backend.

#include "suite/bus_transport.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace plim {

namespace {

constexpr const char* loopbackSender = ":loopback";

struct LoopbackDelivery {
    std::recursive_mutex lock;
    bool alive = true;
    std::string name;
    BusTransport::Handler handler;
};

class LoopbackCore {
public:
    void run()
    {
        for (;;) {
            std::pair<std::string, std::string> message;
            std::vector<std::shared_ptr<LoopbackDelivery>> targets;
            {
                std::unique_lock guard(m_lock);
                m_wake.wait(guard, [&] { return m_stopping || !m_queue.empty(); });
                if (m_queue.empty())
                    return;
                message = std::move(m_queue.front());
                m_queue.pop_front();
                for (auto& weak : m_deliveries)
                    if (auto d = weak.lock(); d && d->name == message.first)
                        targets.push_back(d);
            }
            for (auto& target : targets) {
                std::lock_guard hold(target->lock);
                if (!target->alive)
                    continue;
                try {
                    target->handler(message.second, loopbackSender);
                } catch (...) {
                }
            }
            {
                std::lock_guard guard(m_lock);
                ++m_delivered;
                m_wake.notify_all();
            }
        }
    }

    void post(std::string name, std::string payload)
    {
        std::lock_guard guard(m_lock);
        m_queue.emplace_back(std::move(name), std::move(payload));
        ++m_posted;
        m_wake.notify_all();
    }

    void add(const std::shared_ptr<LoopbackDelivery>& delivery)
    {
        std::lock_guard guard(m_lock);
        std::erase_if(m_deliveries, [](const std::weak_ptr<LoopbackDelivery>& d) { return d.expired(); });
        m_deliveries.push_back(delivery);
    }

    void stop()
    {
        std::lock_guard guard(m_lock);
        m_stopping = true;
        m_wake.notify_all();
    }

    // Waits until everything posted so far has been handed out (not from the delivery thread).
    void drain()
    {
        std::unique_lock guard(m_lock);
        uint64_t target = m_posted;
        m_wake.wait(guard, [&] { return m_delivered >= target || m_stopping; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_wake;
    std::deque<std::pair<std::string, std::string>> m_queue;
    std::vector<std::weak_ptr<LoopbackDelivery>> m_deliveries;
    uint64_t m_posted = 0, m_delivered = 0;
    bool m_stopping = false;
};

class LoopbackSubscription final : public BusTransport::Subscription {
public:
    explicit LoopbackSubscription(std::shared_ptr<LoopbackDelivery> delivery) : m_delivery(std::move(delivery)) {}
    ~LoopbackSubscription() override
    {
        std::lock_guard guard(m_delivery->lock);
        m_delivery->alive = false;
    }

private:
    std::shared_ptr<LoopbackDelivery> m_delivery;
};

class LoopbackTransport final : public BusTransport {
public:
    LoopbackTransport() : m_core(std::make_shared<LoopbackCore>())
    {
        m_thread = std::thread([core = m_core] { core->run(); });
    }

    ~LoopbackTransport() override
    {
        m_core->stop();
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach();
        else
            m_thread.join();
    }

    Status post(std::string_view name, const std::string& payload) override
    {
        if (!splitBusName(name))
            return fail("\"" + std::string(name) + "\" is not a valid message name; nothing was sent.");
        m_core->post(std::string(name), payload);
        return {};
    }

    Result<std::unique_ptr<Subscription>> subscribe(std::string_view name, Handler handler) override
    {
        if (!splitBusName(name))
            return fail("\"" + std::string(name) + "\" is not a valid message name; nothing is being listened to.");
        auto delivery = std::make_shared<LoopbackDelivery>();
        delivery->name = std::string(name);
        delivery->handler = std::move(handler);
        m_core->add(delivery);
        return std::unique_ptr<Subscription>(new LoopbackSubscription(delivery));
    }

    Result<bool> isConnected(const std::string& sender) override { return sender == loopbackSender; }

    Status flush() override
    {
        if (std::this_thread::get_id() != m_thread.get_id())
            m_core->drain();
        return {};
    }

private:
    std::shared_ptr<LoopbackCore> m_core;
    std::thread m_thread;
};

} // namespace

std::shared_ptr<BusTransport> makeLoopbackTransport() { return std::make_shared<LoopbackTransport>(); }

} // namespace plim
