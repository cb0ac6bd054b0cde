#pragma once
// Click or key handlers kept by a backend and called on its event thread, and the seam
// over them (click_source.h, key_source.h).
//
// Threads: install and remove from any thread; deliver from the backend's event thread.
// remove() waits for a handler that is running, so what it captured may then be destroyed.

#include "base/error.h"

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

namespace plim {

template <typename Event>
class EventHandlers {
public:
    using Handler = std::function<void(const Event&)>;
    uint64_t install(Handler handler)
    {
        std::lock_guard lock(m_lock);
        m_handlers.emplace(m_next, std::move(handler));
        return m_next++;
    }
    void remove(uint64_t token)
    {
        std::lock_guard lock(m_lock);
        m_handlers.erase(token);
    }
    void deliver(const Event& event)
    {
        std::lock_guard lock(m_lock);
        for (auto& [token, handler] : m_handlers)
            handler(event);
    }

private:
    std::mutex m_lock; // held while handlers run
    std::map<uint64_t, Handler> m_handlers;
    uint64_t m_next = 1;
};

// A ClickSource or KeySource over handlers of its event, which must outlive it.
template <class Source, typename Event>
class HandlersSource final : public Source {
public:
    explicit HandlersSource(EventHandlers<Event>& handlers) : m_handlers(handlers) {}
    Result<typename Source::Token> install(typename Source::Handler handler) override
    {
        return m_handlers.install(std::move(handler));
    }
    void remove(typename Source::Token token) override { m_handlers.remove(token); }

private:
    EventHandlers<Event>& m_handlers;
};

} // namespace plim
