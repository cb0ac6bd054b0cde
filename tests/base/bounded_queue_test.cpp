// The queue between a render's threads: its count and byte limits, items larger than the
// whole budget, and closing while an end waits.
#include "base/bounded_queue.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

using namespace plim;
using namespace std::chrono_literals;
using Queue = BoundedQueue<int>;

TEST(BoundedQueue, TakesItemsWhileTheyFitTheCountAndTheBudget)
{
    struct Case {
        const char* name;
        std::size_t capacity;
        std::size_t budget;
        std::vector<std::size_t> sizes; // pushed in order, nothing popped
        std::size_t taken;              // how many go in before one has to wait
    };
    const Case cases[] = {
        {"count only", 2, 0, {100, 100, 100}, 2},
        {"small items fill the count", 2, 16, {3, 3, 3}, 2},
        {"large items fill the budget first", 2, 16, {12, 12}, 1},
        {"an item over the budget goes in alone", 2, 16, {40, 1}, 1},
        {"exactly the budget", 3, 16, {8, 8, 1}, 2},
        {"capacity 0 is one", 0, 0, {1, 1}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Queue queue(c.capacity, c.budget);
        std::size_t taken = 0;
        for (std::size_t bytes : c.sizes) {
            int item = static_cast<int>(taken);
            if (queue.push(item, 1ms, bytes) != Queue::Wait::done)
                break;
            ++taken;
        }
        EXPECT_EQ(taken, c.taken);
        // Popping one makes room again, and items come out in order.
        std::optional<int> out;
        ASSERT_EQ(queue.pop(out, 1ms), Queue::Wait::done);
        EXPECT_EQ(out, 0);
        int next = 99;
        EXPECT_EQ(queue.push(next, 1ms, c.sizes[taken < c.sizes.size() ? taken : 0]), Queue::Wait::done);
    }
}

// A producer of items each larger than the budget and a consumer between threads: every
// item arrives, in order, and neither end waits forever.
TEST(BoundedQueue, ItemsOverTheBudgetStillFlowBetweenThreads)
{
    Queue queue(2, 16);
    constexpr int count = 200;
    auto producer = std::async(std::launch::async, [&] {
        for (int i = 0; i < count; ++i) {
            int item = i;
            auto wait = queue.push(item, 2s, i % 3 == 0 ? 40 : 9);
            if (wait != Queue::Wait::done) {
                queue.close();
                return false;
            }
        }
        queue.close();
        return true;
    });
    std::vector<int> got;
    for (;;) {
        std::optional<int> item;
        auto wait = queue.pop(item, 2s);
        ASSERT_NE(wait, Queue::Wait::timedOut) << "after " << got.size() << " items";
        if (wait == Queue::Wait::closed)
            break;
        got.push_back(*item);
    }
    ASSERT_TRUE(producer.get());
    ASSERT_EQ(got.size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(got[i], i);
}

TEST(BoundedQueue, ClosingWakesBothEndsAndKeepsWhatIsQueued)
{
    Queue queue(1, 16);
    int first = 1;
    ASSERT_EQ(queue.push(first, 1ms, 10), Queue::Wait::done);
    auto waitingPush = std::async(std::launch::async, [&] {
        int second = 2;
        return queue.push(second, 5s, 10);
    });
    std::this_thread::sleep_for(20ms);
    queue.close();
    EXPECT_EQ(waitingPush.get(), Queue::Wait::closed);
    std::optional<int> out;
    EXPECT_EQ(queue.pop(out, 1ms), Queue::Wait::done);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(queue.pop(out, 5s), Queue::Wait::closed);
}
