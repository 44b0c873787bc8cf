#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <iterator>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace SDK {

/// The bytes that two counters must lie apart so that the ends of a queue do not fight for one
/// cache line. 64 is the line size of every x86-64 and most AArch64 processors; the standard's own
/// constant is avoided because its value may differ between compilers, and with it the layout.
inline constexpr std::size_t CACHE_LINE = 64;

/// Tells the processor that the caller spins, so that a sibling hyper-thread may use the core.
inline void PauseProcessor() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

/// Whether an element that was moved out of a slot has left it empty; if not, the slot is cleared
/// too.
template <typename T>
inline constexpr bool EMPTY_WHEN_MOVED = false;
template <typename T>
inline constexpr bool EMPTY_WHEN_MOVED<std::shared_ptr<T>> = true;

/// A bounded ring through which threads hand elements to each other without locks: the inbox of
/// every task.
///
/// Four free-running 32-bit counters describe the ring. With all differences taken modulo 2^32,
///
///     m_consTail <= m_consHead <= m_prodTail <= m_prodHead <= m_consTail + m_capacity
///
/// always holds. A producer reserves slots by moving m_prodHead, copies, and publishes them by
/// moving m_prodTail once all earlier reservations are published; a consumer does the same with
/// m_consHead and m_consTail. So slots in [m_consTail, m_prodTail) hold elements, slots in
/// [m_prodTail, m_prodHead) are being written, and slots in [m_consTail, m_consHead) are being
/// read.
///
/// Threads: any number of producers and of consumers, unless a single-thread flag was set for the
/// side. No operation blocks; the only wait is the spin for an earlier reservation of the same
/// side. After a reservation that could not be completed (an allocation failed while the caller's
/// vector grew) the queue is not usable any more.
///
/// Ownership: the queue holds a copy of each element from enqueue until dequeue (cleared slots) or
/// until the slot is written again (slots that are not cleared).
///
/// AtomicT is the atomic template behind the counters. Tests replace it to drive the schedule.
template <typename T, template <typename> class AtomicT = std::atomic>
class LocklessQueue {
public:
    /// A queue without storage. It refuses every operation with 0.
    LocklessQueue() = default;

    /// @param capacity        largest number of elements held at once, 2^31 at the most; 0 leaves
    ///                        the queue without storage. The slots are the next power of two at or
    ///                        above it.
    /// @param singleProducer  true when only one thread will ever enqueue
    /// @param singleConsumer  true when only one thread will ever dequeue
    /// @param clearOnDequeue  true to keep no reference to an element once it was dequeued
    /// @param firstCounter    where the counters start; only tests of the wrap need another value
    explicit LocklessQueue(unsigned int capacity, bool singleProducer = false,
                           bool singleConsumer = false, bool clearOnDequeue = true,
                           unsigned int firstCounter = 0)
        : m_prodHead(firstCounter),
          m_prodTail(firstCounter),
          m_consHead(firstCounter),
          m_consTail(firstCounter),
          m_singleProducer(singleProducer),
          m_singleConsumer(singleConsumer),
          m_size(capacity == 0 ? 0 : std::bit_ceil(capacity)),
          m_mask(m_size == 0 ? 0 : m_size - 1),
          m_capacity(capacity),
          m_clearOnDequeue(clearOnDequeue),
          m_slots(m_size == 0 ? nullptr : new T[m_size]) {}

    LocklessQueue(const LocklessQueue&) = delete;
    LocklessQueue& operator=(const LocklessQueue&) = delete;

    /// Releases the elements still held, last slot first. No thread may use the queue any more.
    virtual ~LocklessQueue() {
        delete[] m_slots;
        m_slots = nullptr;
    }

    /// Adds a copy of one element.
    /// @return 1 when it was added, 0 when the queue is full or has no storage
    virtual int Enqueue(const T& element) {
        if (m_slots == nullptr) {
            return 0;
        }
        return EnqueueBulk(std::vector<T>(1, element), 1);
    }

    /// Adds copies of as many elements as fit, from the front of the vector. The whole vector is
    /// offered: the count says nothing that the vector does not.
    /// @return how many were added; the rest stays the caller's to drop or to offer again
    virtual int EnqueueBulk(const std::vector<T>& elements, int /*count*/) {
        if (m_slots == nullptr) {
            return 0;
        }
        unsigned int head = 0;
        const unsigned int taken =
            ReserveForProducer(static_cast<unsigned int>(elements.size()), head);
        if (taken == 0) {
            return 0;
        }
        _EnqueueElements(head, elements, taken);
        Publish(m_prodTail, m_singleProducer, head, taken);
        return static_cast<int>(taken);
    }

    /// Takes the oldest element.
    /// @param element  assigned when there was one, otherwise left alone
    /// @return 1 when an element was taken, 0 when the queue is empty or has no storage
    virtual int Dequeue(T& element) {
        if (m_slots == nullptr) {
            return 0;
        }
        std::vector<T> one;
        if (DequeueBulk(one, 1) != 1) {
            return 0;
        }
        element = std::move(one.front());
        return 1;
    }

    /// Takes up to count of the oldest elements and appends them, oldest first.
    /// @param elements  grows by the result; not cleared first
    /// @return how many were taken
    virtual int DequeueBulk(std::vector<T>& elements, int count) {
        if (m_slots == nullptr) {
            return 0;
        }
        unsigned int head = 0;
        const unsigned int taken = ReserveForConsumer(static_cast<unsigned int>(count), head);
        if (taken == 0) {
            return 0;
        }
        _DequeueElements(head, elements, taken);
        Publish(m_consTail, m_singleConsumer, head, taken);
        return static_cast<int>(taken);
    }

    /// The number of elements held at some moment during the call; exact only while nobody else
    /// uses the queue.
    unsigned int ApproximateSize() const {
        // consTail first: read the other way round, a busy consumer could make the difference wrap.
        const unsigned int tail = m_consTail.load(std::memory_order_acquire);
        return m_prodTail.load(std::memory_order_acquire) - tail;
    }

    /// The largest number of elements held at once.
    unsigned int Capacity() const { return m_capacity; }

private:
    /// Claims up to wanted free slots. The acquire load of m_consTail pairs with the release store
    /// in Publish by the consumer that emptied them: the slots are not read any more.
    unsigned int ReserveForProducer(unsigned int wanted, unsigned int& head) {
        for (;;) {
            head = m_prodHead.load(std::memory_order_seq_cst);
            const unsigned int free =
                m_consTail.load(std::memory_order_acquire) + m_capacity - head;
            // A head that others have moved meanwhile makes free too large, never too small; the
            // exchange then fails.
            const unsigned int taken = wanted < free ? wanted : free;
            if (taken == 0 || MoveHead(m_prodHead, m_singleProducer, head, taken)) {
                return taken;
            }
        }
    }

    /// Claims up to wanted published slots. The acquire load of m_prodTail pairs with the release
    /// store in Publish by the producer that filled them: their contents are visible.
    unsigned int ReserveForConsumer(unsigned int wanted, unsigned int& head) {
        for (;;) {
            head = m_consHead.load(std::memory_order_seq_cst);
            const unsigned int available = m_prodTail.load(std::memory_order_acquire) - head;
            const unsigned int taken = wanted < available ? wanted : available;
            if (taken == 0 || MoveHead(m_consHead, m_singleConsumer, head, taken)) {
                return taken;
            }
        }
    }

    static bool MoveHead(AtomicT<unsigned int>& head, bool single, unsigned int from,
                         unsigned int by) {
        if (single) {
            head.store(from + by, std::memory_order_relaxed);
            return true;
        }
        return head.compare_exchange_strong(from, from + by, std::memory_order_seq_cst);
    }

    /// Publishes a finished range in the order of reservation.
    static void Publish(AtomicT<unsigned int>& tail, bool single, unsigned int head,
                        unsigned int by) {
        if (!single) {
            WaitForTurn(tail, head);
        }
        tail.store(head + by, std::memory_order_release);
    }

    /// Waits until all earlier reservations of this side are published. They are being copied right
    /// now, so that is a matter of nanoseconds, unless the thread that copies lost its processor:
    /// then spinning on would only keep it from coming back.
    static void WaitForTurn(const AtomicT<unsigned int>& tail, unsigned int head) {
        for (unsigned int spins = 1; tail.load(std::memory_order_acquire) != head; ++spins) {
            PauseProcessor();
            if (spins % SPINS_BEFORE_YIELD == 0) {
                std::this_thread::yield();
            }
        }
    }

    /// Copies into the reserved slots, in two runs when they cross the end of the array.
    void _EnqueueElements(unsigned int head, const std::vector<T>& elements, unsigned int n) {
        const unsigned int first = head & m_mask;
        const unsigned int run = std::min(n, m_size - first);
        std::copy_n(elements.begin(), run, m_slots + first);
        std::copy_n(elements.begin() + run, n - run, m_slots);
    }

    /// Appends from the reserved slots, in two runs when they cross the end of the array.
    void _DequeueElements(unsigned int head, std::vector<T>& elements, unsigned int n) {
        const unsigned int first = head & m_mask;
        const unsigned int run = std::min(n, m_size - first);
        AppendRun(m_slots + first, run, elements);
        AppendRun(m_slots, n - run, elements);
    }

    void AppendRun(T* slots, unsigned int n, std::vector<T>& elements) {
        if (!m_clearOnDequeue) {
            elements.insert(elements.end(), slots, slots + n);
            return;
        }
        elements.insert(elements.end(), std::make_move_iterator(slots),
                        std::make_move_iterator(slots + n));
        if constexpr (!EMPTY_WHEN_MOVED<T>) {
            std::fill_n(slots, n, T());
        }
    }

    // Some microseconds of pauses: longer than any copy of a bulk takes that has a processor.
    static constexpr unsigned int SPINS_BEFORE_YIELD = 256;

    alignas(CACHE_LINE) AtomicT<unsigned int> m_prodHead{0};
    AtomicT<unsigned int> m_prodTail{0};
    alignas(CACHE_LINE) AtomicT<unsigned int> m_consHead{0};
    AtomicT<unsigned int> m_consTail{0};
    alignas(CACHE_LINE) bool m_singleProducer = false;
    bool m_singleConsumer = false;
    unsigned int m_size = 0;
    unsigned int m_mask = 0;
    unsigned int m_capacity = 0;
    bool m_clearOnDequeue = true;
    T* m_slots = nullptr;
};

}  // namespace SDK
