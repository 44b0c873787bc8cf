// The task inbox beside the queues that people would otherwise take: shared message pointers,
// singly and in bulks of 128, from one producer to one consumer and from four to four.
//
// boost::lockfree::queue and atomic_queue's basic queues hold only trivially copyable elements; the
// former is left out, the latter is measured in its variant for movable types, without bulks.

#include "framework/Message.h"
#include "sdk/LocklessQueue.h"

#include <atomic_queue/atomic_queue.h>
#include <benchmark/benchmark.h>
#include <concurrentqueue/concurrentqueue.h>
#include <boost/lockfree/spsc_queue.hpp>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Element = std::shared_ptr<Framework::Message>;
using Elements = std::vector<Element>;

constexpr std::size_t kCapacity = 4096;  // the command task's inbox

/// Each queue answers the same questions: how many went in, how many came out.
class Ours {
public:
    explicit Ours(bool single) : m_queue(kCapacity, single, single) {}
    std::size_t Put(const Elements& elements, std::size_t from) {
        if (from == 0) {
            return static_cast<std::size_t>(m_queue.EnqueueBulk(elements, 0));
        }
        const Elements rest(elements.begin() + static_cast<std::ptrdiff_t>(from), elements.end());
        return static_cast<std::size_t>(m_queue.EnqueueBulk(rest, 0));
    }
    bool PutOne(const Element& element) { return m_queue.Enqueue(element) == 1; }
    std::size_t Take(Elements& elements, std::size_t max) {
        elements.clear();
        return static_cast<std::size_t>(m_queue.DequeueBulk(elements, static_cast<int>(max)));
    }

private:
    SDK::LocklessQueue<Element> m_queue;
};

/// The same with both sides as a task's inbox has them: many producers, one consumer.
class OursAsInbox : public Ours {
public:
    explicit OursAsInbox(bool /*single*/) : Ours(false) {}
};

class Moodycamel {
public:
    explicit Moodycamel(bool /*single*/) : m_queue(kCapacity) {}
    std::size_t Put(const Elements& elements, std::size_t from) {
        const std::size_t count = elements.size() - from;
        return m_queue.try_enqueue_bulk(elements.begin() + static_cast<std::ptrdiff_t>(from), count)
                   ? count
                   : 0;
    }
    bool PutOne(const Element& element) { return m_queue.try_enqueue(element); }
    std::size_t Take(Elements& elements, std::size_t max) {
        elements.resize(max);
        const std::size_t taken = m_queue.try_dequeue_bulk(elements.begin(), max);
        elements.resize(taken);
        return taken;
    }

private:
    moodycamel::ConcurrentQueue<Element> m_queue;
};

class BoostSpsc {
public:
    explicit BoostSpsc(bool /*single*/) : m_queue(kCapacity) {}
    std::size_t Put(const Elements& elements, std::size_t from) {
        return m_queue.push(elements.data() + from, elements.size() - from);
    }
    bool PutOne(const Element& element) { return m_queue.push(element); }
    std::size_t Take(Elements& elements, std::size_t max) {
        elements.resize(max);
        const std::size_t taken = m_queue.pop(elements.data(), max);
        elements.resize(taken);
        return taken;
    }

private:
    boost::lockfree::spsc_queue<Element> m_queue;
};

class AtomicQueue {
public:
    explicit AtomicQueue(bool /*single*/) : m_queue(kCapacity) {}
    std::size_t Put(const Elements& elements, std::size_t from) {
        std::size_t put = 0;
        while (from + put < elements.size() && PutOne(elements[from + put])) {
            ++put;
        }
        return put;
    }
    bool PutOne(const Element& element) { return m_queue.try_push(Element(element)); }
    std::size_t Take(Elements& elements, std::size_t max) {
        elements.clear();
        Element element;
        while (elements.size() < max && m_queue.try_pop(element)) {
            elements.push_back(std::move(element));
        }
        return elements.size();
    }

private:
    atomic_queue::AtomicQueueB2<Element> m_queue;
};

/// Waits a moment for the other side; on a machine with fewer free cores than threads it lets go.
class Backoff {
public:
    void Wait() {
        if (++m_tries < 64) {
            SDK::PauseProcessor();
        } else {
            std::this_thread::yield();
        }
    }
    void Reset() { m_tries = 0; }

private:
    int m_tries = 0;
};

/// Passes messages from producers to consumers until all have arrived.
template <typename QueueT>
void Pass(QueueT& queue, int pairs, std::size_t bulk, std::size_t messages) {
    std::atomic<std::size_t> arrived{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < pairs; ++i) {
        threads.emplace_back([&queue, pairs, bulk, messages] {
            Elements elements;
            for (std::size_t one = 0; one < bulk; ++one) {
                elements.push_back(std::make_shared<Framework::Message>("bench"));
            }
            Backoff backoff;
            const std::size_t share = messages / static_cast<std::size_t>(pairs);
            for (std::size_t sent = 0; sent < share; sent += bulk) {
                for (std::size_t put = 0; put < bulk;) {
                    const std::size_t went =
                        bulk == 1 ? static_cast<std::size_t>(queue.PutOne(elements[0]))
                                  : queue.Put(elements, put);
                    put += went;
                    went == 0 ? backoff.Wait() : backoff.Reset();
                }
            }
        });
        threads.emplace_back([&queue, &arrived, bulk, messages] {
            Elements elements;
            elements.reserve(bulk);
            Backoff backoff;
            while (arrived.load(std::memory_order_relaxed) < messages) {
                const std::size_t taken = queue.Take(elements, bulk);
                if (taken == 0) {
                    backoff.Wait();
                } else {
                    backoff.Reset();
                    arrived.fetch_add(taken, std::memory_order_relaxed);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

template <typename QueueT>
void PassMessages(benchmark::State& state) {
    const int pairs = static_cast<int>(state.range(0));
    const auto bulk = static_cast<std::size_t>(state.range(1));
    const std::size_t messages = bulk == 1 ? 1U << 19U : 1U << 21U;
    for (auto _ : state) {
        QueueT queue(pairs == 1);
        Pass(queue, pairs, bulk, messages);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(messages));
}

void Shapes(benchmark::internal::Benchmark* one) {
    one->ArgNames({"pairs", "bulk"})->UseRealTime()->Unit(benchmark::kMillisecond);
    one->Args({1, 128})->Args({1, 1});
}

void ShapesWithMany(benchmark::internal::Benchmark* one) {
    Shapes(one);
    one->Args({4, 128})->Args({4, 1});
}

BENCHMARK(PassMessages<Ours>)->Apply(ShapesWithMany);
BENCHMARK(PassMessages<OursAsInbox>)->Apply(Shapes);
BENCHMARK(PassMessages<Moodycamel>)->Apply(ShapesWithMany);
BENCHMARK(PassMessages<BoostSpsc>)->Apply(Shapes);
BENCHMARK(PassMessages<AtomicQueue>)->Apply(ShapesWithMany);

}  // namespace

BENCHMARK_MAIN();
