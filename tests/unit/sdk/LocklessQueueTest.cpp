#include "sdk/LocklessQueue.h"

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Element = std::shared_ptr<int>;
using Elements = std::vector<Element>;
using Queue = SDK::LocklessQueue<Element>;

Elements Numbers(int first, int count) {
    Elements elements;
    for (int i = 0; i < count; ++i) {
        elements.push_back(std::make_shared<int>(first + i));
    }
    return elements;
}

std::vector<int> Values(const Elements& elements) {
    std::vector<int> values;
    for (const Element& element : elements) {
        values.push_back(*element);
    }
    return values;
}

std::vector<int> Take(Queue& queue, int count) {
    Elements elements;
    queue.DequeueBulk(elements, count);
    return Values(elements);
}

using Ints = std::vector<int>;

TEST(LocklessQueue, WithoutStorageRefusesEveryOperation) {
    Queue queue;
    Element element = std::make_shared<int>(1);
    Elements out;
    EXPECT_EQ(queue.Enqueue(element), 0);
    EXPECT_EQ(queue.EnqueueBulk({element}, 1), 0);
    EXPECT_EQ(queue.Dequeue(element), 0);
    EXPECT_EQ(queue.DequeueBulk(out, 1), 0);
    EXPECT_EQ(*element, 1);
}

TEST(LocklessQueue, OfCapacityZeroHasNoStorage) {
    Queue queue(0);
    EXPECT_EQ(queue.Enqueue(std::make_shared<int>(1)), 0);
}

TEST(LocklessQueue, GivesTheOldestFirst) {
    Queue queue(4);
    queue.Enqueue(std::make_shared<int>(1));
    queue.Enqueue(std::make_shared<int>(2));
    Element element;
    EXPECT_EQ(queue.Dequeue(element), 1);
    EXPECT_EQ(*element, 1);
    EXPECT_EQ(queue.Dequeue(element), 1);
    EXPECT_EQ(*element, 2);
}

TEST(LocklessQueue, WhenEmptyLeavesTheArgumentUntouched) {
    Queue queue(4);
    Element element = std::make_shared<int>(7);
    EXPECT_EQ(queue.Dequeue(element), 0);
    EXPECT_EQ(*element, 7);
}

TEST(LocklessQueue, OfCapacityFourHoldingThreeTakesOneOfABulkOfThree) {
    Queue queue(4);
    EXPECT_EQ(queue.EnqueueBulk(Numbers(1, 3), 3), 3);
    EXPECT_EQ(queue.EnqueueBulk(Numbers(4, 3), 3), 1);
    EXPECT_EQ(Take(queue, 10), (Ints{1, 2, 3, 4}));
}

TEST(LocklessQueue, RefusesWhenFull) {
    Queue queue(4);
    queue.EnqueueBulk(Numbers(1, 4), 4);
    EXPECT_EQ(queue.Enqueue(std::make_shared<int>(5)), 0);
    EXPECT_EQ(queue.EnqueueBulk(Numbers(5, 2), 2), 0);
}

TEST(LocklessQueue, OffersTheWholeVectorWhateverTheCountSays) {
    Queue queue(8);
    EXPECT_EQ(queue.EnqueueBulk(Numbers(1, 3), 0), 3);
    EXPECT_EQ(queue.EnqueueBulk(Numbers(4, 3), 99), 3);
}

TEST(LocklessQueue, AnEmptyBulkAddsNothing) {
    Queue queue(4);
    EXPECT_EQ(queue.EnqueueBulk({}, 5), 0);
}

TEST(LocklessQueue, HoldsItsCapacityWhenThatIsNoPowerOfTwo) {
    Queue queue(5);
    EXPECT_EQ(queue.EnqueueBulk(Numbers(1, 9), 9), 5);
    EXPECT_EQ(Take(queue, 9), (Ints{1, 2, 3, 4, 5}));
}

TEST(LocklessQueue, ABulkOfZeroTakesNothing) {
    Queue queue(4);
    queue.EnqueueBulk(Numbers(1, 2), 2);
    Elements out;
    EXPECT_EQ(queue.DequeueBulk(out, 0), 0);
    EXPECT_EQ(queue.ApproximateSize(), 2U);
}

TEST(LocklessQueue, ACountBelowZeroIsAVeryLargeOne) {
    Queue queue(4);
    queue.EnqueueBulk(Numbers(1, 3), 3);
    EXPECT_EQ(Take(queue, -1), (Ints{1, 2, 3}));
}

TEST(LocklessQueue, ABulkLargerThanTheContentTakesTheContent) {
    Queue queue(4);
    queue.EnqueueBulk(Numbers(1, 3), 3);
    EXPECT_EQ(Take(queue, 100), (Ints{1, 2, 3}));
}

TEST(LocklessQueue, AppendsToTheCallersVector) {
    Queue queue(4);
    queue.EnqueueBulk(Numbers(2, 2), 2);
    Elements out = Numbers(1, 1);
    EXPECT_EQ(queue.DequeueBulk(out, 4), 2);
    EXPECT_EQ(Values(out), (Ints{1, 2, 3}));
}

TEST(LocklessQueue, SplitsABulkAtTheEndOfTheSlots) {
    Queue queue(8);
    queue.EnqueueBulk(Numbers(1, 6), 6);
    EXPECT_EQ(Take(queue, 6), (Ints{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(queue.EnqueueBulk(Numbers(7, 5), 5), 5);
    EXPECT_EQ(Take(queue, 8), (Ints{7, 8, 9, 10, 11}));
}

TEST(LocklessQueue, KeepsOrderAndCountsAcrossTheWrapOfTheCounters) {
    for (unsigned int before = 0; before < 6; ++before) {
        Queue queue(4, false, false, true, 0U - before);
        int next = 0;
        for (int round = 0; round < 4; ++round) {
            EXPECT_EQ(queue.EnqueueBulk(Numbers(next, 5), 5), 4);
            EXPECT_EQ(queue.ApproximateSize(), 4U);
            EXPECT_EQ(Take(queue, 5), (Ints{next, next + 1, next + 2, next + 3}));
            next += 4;
        }
    }
}

TEST(LocklessQueue, WrapsItsCountersOnSingleThreadSidesToo) {
    Queue queue(3, true, true, true, 0U - 2U);
    EXPECT_EQ(queue.EnqueueBulk(Numbers(1, 4), 4), 3);
    EXPECT_EQ(Take(queue, 4), (Ints{1, 2, 3}));
    EXPECT_EQ(queue.Enqueue(std::make_shared<int>(4)), 1);
    EXPECT_EQ(Take(queue, 4), Ints{4});
}

TEST(LocklessQueue, ThatClearsKeepsNoDequeuedElementAlive) {
    Queue queue(4, false, false, true);
    Elements in = Numbers(1, 1);
    const std::weak_ptr<int> watched = in.front();
    queue.EnqueueBulk(in, 1);
    in.clear();
    Elements out;
    queue.DequeueBulk(out, 1);
    EXPECT_EQ(out.front().use_count(), 1);
    out.clear();
    EXPECT_TRUE(watched.expired());
}

TEST(LocklessQueue, ThatDoesNotClearKeepsItUntilTheSlotIsWrittenAgain) {
    Queue queue(1, false, false, false);
    std::weak_ptr<int> watched;
    {
        const Element element = std::make_shared<int>(1);
        watched = element;
        queue.Enqueue(element);
    }
    Take(queue, 1);
    EXPECT_FALSE(watched.expired());
    queue.Enqueue(std::make_shared<int>(2));
    EXPECT_TRUE(watched.expired());
}

TEST(LocklessQueue, ThatDoesNotClearGivesABulkAcrossTheEndOfTheSlotsInOrderAndKeepsIt) {
    Queue queue(4, false, false, false);
    queue.EnqueueBulk(Numbers(1, 3), 3);
    Take(queue, 3);
    Elements in = Numbers(4, 4);
    const std::vector<std::weak_ptr<int>> watched(in.begin(), in.end());
    queue.EnqueueBulk(in, 4);
    in.clear();
    Elements out = Numbers(9, 1);
    EXPECT_EQ(queue.DequeueBulk(out, 4), 4);
    EXPECT_EQ(Values(out), (Ints{9, 4, 5, 6, 7}));
    out.clear();
    for (const auto& element : watched) {
        EXPECT_FALSE(element.expired());
    }
}

TEST(LocklessQueue, ReleasesWhatItHoldsWhenItEnds) {
    std::weak_ptr<int> watched;
    {
        Queue queue(4);
        const Element element = std::make_shared<int>(1);
        watched = element;
        queue.Enqueue(element);
    }
    EXPECT_TRUE(watched.expired());
}

/// Notes in which order elements die.
struct Mortal {
    int number = 0;
    std::vector<int>* deaths = nullptr;
    ~Mortal() {
        if (deaths != nullptr) {
            deaths->push_back(number);
        }
    }
};

TEST(LocklessQueue, ReleasesItsSlotsFromTheLastToTheFirst) {
    std::vector<int> deaths;
    {
        SDK::LocklessQueue<std::shared_ptr<Mortal>> queue(4);
        for (int i = 1; i <= 3; ++i) {
            auto mortal = std::make_shared<Mortal>();
            mortal->number = i;
            mortal->deaths = &deaths;
            queue.Enqueue(mortal);
        }
    }
    EXPECT_EQ(deaths, (Ints{3, 2, 1}));
}

/// Counts its single operations' bulk calls: they go through the table of virtual functions.
class CountingQueue : public Queue {
public:
    using Queue::Queue;
    int EnqueueBulk(const Elements& elements, int count) override {
        ++m_enqueues;
        return Queue::EnqueueBulk(elements, count);
    }
    int DequeueBulk(Elements& elements, int count) override {
        ++m_dequeues;
        return Queue::DequeueBulk(elements, count);
    }
    int m_enqueues = 0;
    int m_dequeues = 0;
};

TEST(LocklessQueue, SingleOperationsGoThroughTheBulkOnes) {
    CountingQueue queue(4);
    Element element = std::make_shared<int>(1);
    queue.Enqueue(element);
    queue.Dequeue(element);
    EXPECT_EQ(queue.m_enqueues, 1);
    EXPECT_EQ(queue.m_dequeues, 1);
}

TEST(LocklessQueue, ItsOperationsStandBehindTheDestructors) {
    EXPECT_EQ(TestSupport::VirtualSlot(&Queue::Enqueue), 2U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Queue::EnqueueBulk), 3U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Queue::Dequeue), 4U);
    EXPECT_EQ(TestSupport::VirtualSlot(&Queue::DequeueBulk), 5U);
}

/// An atomic that tells where it lives.
template <typename T>
class LocatedAtomic : public std::atomic<T> {
public:
    explicit LocatedAtomic(T value) : std::atomic<T>(value) {
        Places().push_back(reinterpret_cast<std::uintptr_t>(this));
    }
    static std::vector<std::uintptr_t>& Places() {
        static std::vector<std::uintptr_t> places;
        return places;
    }
};

TEST(LocklessQueue, ItsEndsShareNoCacheLine) {
    LocatedAtomic<unsigned int>::Places().clear();
    const SDK::LocklessQueue<Element, LocatedAtomic> queue(4);
    std::vector<std::uintptr_t> lines = LocatedAtomic<unsigned int>::Places();
    ASSERT_EQ(lines.size(), 4U);  // both counters of the producers, then of the consumers
    for (std::uintptr_t& line : lines) {
        line /= SDK::CACHE_LINE;
    }
    EXPECT_EQ(lines[0], lines[1]);
    EXPECT_EQ(lines[2], lines[3]);
    EXPECT_NE(lines[0], lines[2]);
}

// ThreadSanitizer makes a spin for a thread that was put to sleep cost a hundred times as much.
#if defined(__SANITIZE_THREAD__)
constexpr int kEach = 1000;
#else
constexpr int kEach = 20000;
#endif

/// Moves elements from producers to consumers and checks that each arrives once, in its producer's
/// order.
void Stress(int producers, int consumers, bool bulk) {
    Queue queue(64, producers == 1, consumers == 1, true, 0U - 1000U);
    std::atomic<int> taken{0};
    std::vector<Elements> got(static_cast<std::size_t>(consumers));
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&queue, p, bulk] {
            int next = 0;
            while (next < kEach) {
                const int first = p * kEach + next;
                const int sent =
                    bulk ? queue.EnqueueBulk(Numbers(first, std::min(9, kEach - next)), 9)
                         : queue.Enqueue(std::make_shared<int>(first));
                next += sent;
                if (sent == 0) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (Elements& mine : got) {
        threads.emplace_back([&queue, &taken, &mine, producers] {
            while (taken < producers * kEach) {
                const int count = queue.DequeueBulk(mine, 7);
                taken += count;
                if (count == 0) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<int> all;
    for (const Elements& mine : got) {
        std::vector<int> last(static_cast<std::size_t>(producers), -1);
        for (const int value : Values(mine)) {
            int& before = last[static_cast<std::size_t>(value / kEach)];
            ASSERT_LT(before, value);
            before = value;
            all.push_back(value);
        }
    }
    std::sort(all.begin(), all.end());
    ASSERT_EQ(all.size(), static_cast<std::size_t>(producers * kEach));
    EXPECT_EQ(std::unique(all.begin(), all.end()), all.end());
}

TEST(LocklessQueueStress, OneProducerOneConsumer) { Stress(1, 1, true); }
TEST(LocklessQueueStress, ManyProducersOneConsumerSingly) { Stress(4, 1, false); }
TEST(LocklessQueueStress, ManyProducersOneConsumerInBulk) { Stress(4, 1, true); }
TEST(LocklessQueueStress, OneProducerManyConsumers) { Stress(1, 4, true); }
TEST(LocklessQueueStress, ManyProducersManyConsumers) { Stress(4, 4, true); }

}  // namespace
