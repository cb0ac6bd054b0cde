#pragma once
// A queue between two threads (a render's stages, a recording's sources and its writer), of
// at most `capacity` items and, with a byte budget, of items holding at most that many bytes
// together (so small pictures can queue deeper than large ones; a weight of one per item
// counts items of one kind). An item larger than the whole budget still goes through once
// the queue is empty. Both ends wait at most a given time, so a caller can look at its
// stop flag and its stall clock while it waits; `close()` ends the stream and wakes everyone.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace plim {

template<typename T>
class BoundedQueue {
public:
    enum class Wait { done, timedOut, closed };

    // `budget` 0: no byte budget, only the count.
    explicit BoundedQueue(std::size_t capacity, std::size_t budget = 0)
        : m_capacity(capacity ? capacity : 1), m_budget(budget) {}

    // Waits up to `timeout` for room for an item of `bytes`. `closed` means the other end
    // is gone and the item was dropped.
    Wait push(T& item, std::chrono::milliseconds timeout, std::size_t bytes = 0)
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, timeout, [&] { return m_closed || hasRoom(bytes); }))
            return Wait::timedOut;
        if (m_closed)
            return Wait::closed;
        m_items.emplace_back(std::move(item), bytes);
        m_bytes += bytes;
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
        item = std::move(m_items.front().first);
        m_bytes -= m_items.front().second;
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
    bool hasRoom(std::size_t bytes) const
    {
        if (m_items.empty())
            return true;
        return m_items.size() < m_capacity && (m_budget == 0 || m_bytes + bytes <= m_budget);
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::pair<T, std::size_t>> m_items;
    std::size_t m_capacity;
    std::size_t m_budget;
    std::size_t m_bytes = 0;
    bool m_closed = false;
};

} // namespace plim
