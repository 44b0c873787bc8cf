// The inbox queue does, step by step, what a simple queue with a limit does. The first bytes choose
// the capacity, the flags and where the counters start; then each byte is one operation.

#include "FuzzInput.h"
#include "sdk/LocklessQueue.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <vector>

namespace {

using Element = std::shared_ptr<unsigned int>;

/// The queue and its model side by side.
class Pair {
public:
    explicit Pair(FuzzInput& input)
        : m_capacity(input.Byte() % 40),
          m_clears(input.Byte() % 2 != 0),
          m_queue(m_capacity, input.Byte() % 2 != 0, input.Byte() % 2 != 0, m_clears,
                  input.Number()) {}

    void Enqueue() {
        const Element element = Next();
        Require(m_queue.Enqueue(element) == Offer({element}));
    }
    void EnqueueBulk(unsigned int count) {
        std::vector<Element> elements(count);
        std::generate(elements.begin(), elements.end(), [this] { return Next(); });
        Require(m_queue.EnqueueBulk(elements, 0) == Offer(elements));
    }
    void Dequeue() {
        const Element before = std::make_shared<unsigned int>(0);
        Element element = before;
        if (m_model.empty()) {
            Require(m_queue.Dequeue(element) == 0 && element == before);
            return;
        }
        Require(m_queue.Dequeue(element) == 1);
        RequireOldest(element);
    }
    void DequeueBulk(unsigned int count) {
        std::vector<Element> elements(1);
        const std::size_t expected = std::min<std::size_t>(count, m_model.size());
        Require(m_queue.DequeueBulk(elements, static_cast<int>(count)) ==
                static_cast<int>(expected));
        Require(elements.size() == expected + 1 && elements.front() == nullptr);
        for (std::size_t i = 1; i < elements.size(); ++i) {
            RequireOldest(elements[i]);
        }
    }
    void RequireSameSize() const { Require(m_queue.ApproximateSize() == m_model.size()); }

private:
    Element Next() { return std::make_shared<unsigned int>(++m_last); }

    /// Gives the model what fits. @return how many
    int Offer(const std::vector<Element>& elements) {
        int taken = 0;
        for (const Element& element : elements) {
            if (m_model.size() < m_capacity) {
                m_model.push_back(*element);
                ++taken;
            }
        }
        return taken;
    }
    void RequireOldest(const Element& element) {
        Require(*element == m_model.front());
        // A queue that clears its slots holds nothing that was dequeued.
        Require(!m_clears || element.use_count() == 1);
        m_model.pop_front();
    }

    const unsigned int m_capacity;
    const bool m_clears;
    SDK::LocklessQueue<Element> m_queue;
    std::deque<unsigned int> m_model;
    unsigned int m_last = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    Pair pair(input);
    while (!input.IsEmpty()) {
        const unsigned int operation = input.Byte();
        const unsigned int count = operation >> 2U;  // 0 to 63, beyond the largest capacity
        switch (operation & 3U) {
            case 0:
                pair.Enqueue();
                break;
            case 1:
                pair.EnqueueBulk(count);
                break;
            case 2:
                pair.Dequeue();
                break;
            default:
                pair.DequeueBulk(count);
                break;
        }
        pair.RequireSameSize();
    }
    return 0;
}
