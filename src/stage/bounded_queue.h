#pragma once
// A queue of at most `capacity` items between two threads of a render. Both ends wait
// at most a given time, so a caller can look at its stop flag and its stall clock while
// it waits; `close()` ends the stream and wakes everyone.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

namespace plim {

template<typename T>
class BoundedQueue {
public:
    enum class Wait { done, timedOut, closed };

    explicit BoundedQueue(std::size_t capacity) : m_capacity(capacity ? capacity : 1) {}

    // Waits up to `timeout` for room. `closed` means the other end is gone and the item
    // was dropped.
    Wait push(T& item, std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, timeout, [&] { return m_closed || m_items.size() < m_capacity; }))
            return Wait::timedOut;
        if (m_closed)
            return Wait::closed;
        m_items.push_back(std::move(item));
        m_changed.notify_all();
        return Wait::done;
    }

    // Waits up to `timeout` for an item. `closed` once the queue is closed and empty.
    Wait pop(std::optional<T>& item, std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, timeout, [&] { return m_closed || !m_items.empty(); }))
            return Wait::timedOut;
        if (m_items.empty())
            return Wait::closed;
        item = std::move(m_items.front());
        m_items.pop_front();
        m_changed.notify_all();
        return Wait::done;
    }

    // No more items will be pushed; the ones queued can still be popped.
    void close()
    {
        std::lock_guard lock(m_mutex);
        m_closed = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<T> m_items;
    std::size_t m_capacity;
    bool m_closed = false;
};

} // namespace plim
