// The queue's four counters under a microscope: tests stop a thread between two steps, or let
// another operation slip in there, and read the steps and their memory orders.

#include "sdk/LocklessQueue.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {

// In the order in which a queue makes them.
enum class Counter { kProdHead, kProdTail, kConsHead, kConsTail };
enum class Access { kLoad, kStore, kExchange };

struct Step {
    Counter counter;
    Access access;
    std::memory_order order;

    bool Is(Counter someCounter, Access someAccess) const {
        return counter == someCounter && access == someAccess;
    }
    bool operator==(const Step& other) const {
        return Is(other.counter, other.access) && order == other.order;
    }
};

using Watcher = std::function<void(const Step&)>;

// Called by this thread after each load of a counter and before each change of one.
thread_local Watcher g_watcher;

void Tell(const Step& step) {
    // By copy: a watcher may take itself away.
    const Watcher watcher = g_watcher;
    if (watcher) {
        watcher(step);
    }
}

/// An atomic whose accesses can be watched.
template <typename T>
class WatchedAtomic {
public:
    explicit WatchedAtomic(T value) : m_counter(NextCounter()), m_value(value) {}

    T load(std::memory_order order) const {
        const T value = m_value.load(order);
        Tell({m_counter, Access::kLoad, order});
        return value;
    }
    void store(T value, std::memory_order order) {
        Tell({m_counter, Access::kStore, order});
        m_value.store(value, order);
    }
    bool compare_exchange_strong(T& expected, T desired, std::memory_order order) {
        Tell({m_counter, Access::kExchange, order});
        return m_value.compare_exchange_strong(expected, desired, order);
    }

private:
    static Counter NextCounter() {
        static int made = 0;
        return static_cast<Counter>(made++ % 4);
    }

    const Counter m_counter;
    std::atomic<T> m_value;
};

using Ints = std::vector<int>;
using Queue = SDK::LocklessQueue<int, WatchedAtomic>;
using TestSupport::WaitUntil;

Ints TakeAll(Queue& queue) {
    Ints taken;
    queue.DequeueBulk(taken, 100);
    return taken;
}

/// A thread that is held before it stores a counter, until it is let go.
class HeldThread {
public:
    HeldThread(Counter before, const std::function<void()>& work)
        : m_thread([this, before, work] {
              g_watcher = [this, before](const Step& step) {
                  if (step.Is(before, Access::kStore)) {
                      m_arrived = true;
                      WaitUntil([this] { return m_letGo.load(); });
                  }
              };
              work();
          }) {
        EXPECT_TRUE(WaitUntil([this] { return m_arrived.load(); }));
    }
    void LetGo() {
        m_letGo = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_arrived{false};
    std::atomic<bool> m_letGo{false};
    std::thread m_thread;
};

/// A thread of which it is known that it has done everything but wait for its turn.
class WaitingThread {
public:
    WaitingThread(Counter turn, const std::function<void()>& work)
        : m_thread([this, turn, work] {
              g_watcher = [this, turn](const Step& step) {
                  m_looks += step.Is(turn, Access::kLoad) ? 1 : 0;
                  m_published = m_published || step.Is(turn, Access::kStore);
              };
              work();
          }) {
        EXPECT_TRUE(WaitUntil([this] { return m_looks > 100; }));
    }
    bool HasPublished() const { return m_published; }
    void Join() { m_thread.join(); }

private:
    std::atomic<int> m_looks{0};
    std::atomic<bool> m_published{false};
    std::thread m_thread;
};

TEST(LocklessQueueSchedule, ProducersPublishInTheOrderOfReservationEvenIfTheSecondFinishesFirst) {
    Queue queue(8);
    HeldThread first(Counter::kProdTail, [&queue] { queue.EnqueueBulk({1, 2}, 2); });
    WaitingThread second(Counter::kProdTail, [&queue] { queue.EnqueueBulk({3}, 1); });
    EXPECT_FALSE(second.HasPublished());
    EXPECT_EQ(TakeAll(queue), Ints{});
    first.LetGo();
    second.Join();
    EXPECT_EQ(TakeAll(queue), (Ints{1, 2, 3}));
}

TEST(LocklessQueueSchedule, ConsumersReleaseInTheOrderOfReservationEvenIfTheSecondFinishesFirst) {
    Queue queue(4);
    queue.EnqueueBulk({1, 2, 3, 4}, 4);
    Ints firstGot;
    Ints secondGot;
    HeldThread first(Counter::kConsTail, [&] { queue.DequeueBulk(firstGot, 2); });
    WaitingThread second(Counter::kConsTail, [&] { queue.DequeueBulk(secondGot, 1); });
    EXPECT_FALSE(second.HasPublished());
    EXPECT_EQ(queue.Enqueue(5), 0);
    first.LetGo();
    second.Join();
    EXPECT_EQ(firstGot, (Ints{1, 2}));
    EXPECT_EQ(secondGot, Ints{3});
    EXPECT_EQ(queue.EnqueueBulk({5, 6, 7, 8}, 4), 3);
}

/// Lets something happen once, right after this thread has read a counter.
void SlipInAfterLoad(Counter counter, const std::function<void()>& what) {
    g_watcher = [counter, what](const Step& step) {
        if (step.Is(counter, Access::kLoad)) {
            g_watcher = nullptr;
            what();
        }
    };
}

TEST(LocklessQueueSchedule, AProducerWhoseHeadWasMovedTriesAgainWithFreshValues) {
    Queue queue(4);
    SlipInAfterLoad(Counter::kProdHead, [&queue] { queue.EnqueueBulk({1, 2, 3}, 3); });
    EXPECT_EQ(queue.EnqueueBulk({7, 8}, 2), 1);
    EXPECT_EQ(TakeAll(queue), (Ints{1, 2, 3, 7}));
}

TEST(LocklessQueueSchedule, AProducerThatConsumersHaveOvertakenTriesAgain) {
    Queue queue(4);
    SlipInAfterLoad(Counter::kProdHead, [&queue] {
        queue.EnqueueBulk({1, 2, 3, 4}, 4);
        EXPECT_EQ(TakeAll(queue), (Ints{1, 2, 3, 4}));
    });
    EXPECT_EQ(queue.EnqueueBulk({5, 6, 7, 8, 9}, 5), 4);
    EXPECT_EQ(TakeAll(queue), (Ints{5, 6, 7, 8}));
}

TEST(LocklessQueueSchedule, AConsumerWhoseHeadWasMovedTakesNothingTwice) {
    Queue queue(4);
    queue.EnqueueBulk({1, 2, 3}, 3);
    SlipInAfterLoad(Counter::kConsHead, [&queue] {
        Ints others;
        EXPECT_EQ(queue.DequeueBulk(others, 2), 2);
    });
    EXPECT_EQ(TakeAll(queue), Ints{3});
}

TEST(LocklessQueueSchedule, AConsumerWhoseElementsWereAllTakenReturnsAtOnce) {
    Queue queue(4);
    queue.EnqueueBulk({1, 2, 3}, 3);
    SlipInAfterLoad(Counter::kConsHead, [&queue] { TakeAll(queue); });
    int element = 7;
    EXPECT_EQ(queue.Dequeue(element), 0);
    EXPECT_EQ(element, 7);
}

/// The steps of one operation of this thread.
std::vector<Step> StepsOf(const std::function<void()>& operation) {
    std::vector<Step> steps;
    g_watcher = [&steps](const Step& step) { steps.push_back(step); };
    operation();
    g_watcher = nullptr;
    return steps;
}

using Steps = std::vector<Step>;

const Steps kSharedEnqueue = {{Counter::kProdHead, Access::kLoad, std::memory_order_seq_cst},
                              {Counter::kConsTail, Access::kLoad, std::memory_order_acquire},
                              {Counter::kProdHead, Access::kExchange, std::memory_order_seq_cst},
                              {Counter::kProdTail, Access::kLoad, std::memory_order_acquire},
                              {Counter::kProdTail, Access::kStore, std::memory_order_release}};
const Steps kSharedDequeue = {{Counter::kConsHead, Access::kLoad, std::memory_order_seq_cst},
                              {Counter::kProdTail, Access::kLoad, std::memory_order_acquire},
                              {Counter::kConsHead, Access::kExchange, std::memory_order_seq_cst},
                              {Counter::kConsTail, Access::kLoad, std::memory_order_acquire},
                              {Counter::kConsTail, Access::kStore, std::memory_order_release}};
const Steps kSingleEnqueue = {{Counter::kProdHead, Access::kLoad, std::memory_order_seq_cst},
                              {Counter::kConsTail, Access::kLoad, std::memory_order_acquire},
                              {Counter::kProdHead, Access::kStore, std::memory_order_relaxed},
                              {Counter::kProdTail, Access::kStore, std::memory_order_release}};
const Steps kSingleDequeue = {{Counter::kConsHead, Access::kLoad, std::memory_order_seq_cst},
                              {Counter::kProdTail, Access::kLoad, std::memory_order_acquire},
                              {Counter::kConsHead, Access::kStore, std::memory_order_relaxed},
                              {Counter::kConsTail, Access::kStore, std::memory_order_release}};

void ExpectSteps(bool singleProducer, bool singleConsumer, const Steps& enqueue,
                 const Steps& dequeue) {
    Queue queue(4, singleProducer, singleConsumer);
    EXPECT_EQ(StepsOf([&queue] { queue.EnqueueBulk({1, 2}, 2); }), enqueue);
    EXPECT_EQ(StepsOf([&queue] { TakeAll(queue); }), dequeue);
}

TEST(LocklessQueueSchedule, TheTwoSidesMeetInReleaseStoresAndAcquireLoads) {
    ExpectSteps(false, false, kSharedEnqueue, kSharedDequeue);
}

TEST(LocklessQueueSchedule, ASingleThreadSideNeitherExchangesNorWaits) {
    ExpectSteps(true, true, kSingleEnqueue, kSingleDequeue);
}

TEST(LocklessQueueSchedule, EachSideHasItsOwnFlag) {
    ExpectSteps(true, false, kSingleEnqueue, kSharedDequeue);
    ExpectSteps(false, true, kSharedEnqueue, kSingleDequeue);
}

TEST(LocklessQueueSchedule, AFullOrEmptyQueueIsLeftWithoutAChange) {
    Queue queue(1);
    int element = 0;
    for (const Step& step : StepsOf([&] { queue.Dequeue(element); })) {
        EXPECT_EQ(step.access, Access::kLoad);
    }
    queue.Enqueue(1);
    for (const Step& step : StepsOf([&] { queue.Enqueue(2); })) {
        EXPECT_EQ(step.access, Access::kLoad);
    }
}

}  // namespace
