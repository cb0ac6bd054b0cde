#pragma once
// Handler bookkeeping for the scripted event sources: install, remove and synchronous
// delivery on the caller's thread. Thread-safe; remove waits for a running handler.

#include "base/error.h"

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace plim {

template<typename Event>
class ScriptedDelivery {
public:
    using Handler = std::function<void(const Event&)>;
    using Token = uint64_t;

    // `refusal` is the sentence installs fail with while refusing.
    explicit ScriptedDelivery(std::string refusal) : m_refusal(std::move(refusal)) {}

    Result<Token> install(Handler handler)
    {
        std::lock_guard lock(m_mutex);
        if (m_refusing)
            return fail(m_refusal);
        Token token = m_next++;
        m_handlers.emplace(token, std::move(handler));
        return token;
    }

    void remove(Token token)
    {
        std::lock_guard delivery(m_delivery);
        std::lock_guard lock(m_mutex);
        m_handlers.erase(token);
    }

    // Calls every installed handler with the event.
    void deliver(const Event& event)
    {
        std::lock_guard delivery(m_delivery);
        std::vector<Handler> handlers;
        {
            std::lock_guard lock(m_mutex);
            for (const auto& [token, handler] : m_handlers)
                handlers.push_back(handler);
        }
        for (const auto& handler : handlers)
            handler(event);
    }

    // Makes the next installs fail, as a source without permission would.
    void setRefusing(bool refusing)
    {
        std::lock_guard lock(m_mutex);
        m_refusing = refusing;
    }

    int installedCount() const
    {
        std::lock_guard lock(m_mutex);
        return static_cast<int>(m_handlers.size());
    }

private:
    const std::string m_refusal;
    mutable std::mutex m_mutex;      // guards the fields below
    std::recursive_mutex m_delivery; // held while handlers run, so remove waits for them
    std::map<Token, Handler> m_handlers;
    Token m_next = 1;
    bool m_refusing = false;
};

} // namespace plim
