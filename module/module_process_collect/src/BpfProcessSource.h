#pragma once

#include "ProcessSource.h"

#include <chrono>
#include <memory>

struct ring_buffer;
struct ProcessEvents;

namespace ProcessCollect {

/// Process events from three small programs inside the kernel, through one ring buffer. Arguments
/// and path of an exec are taken in the kernel, so they are complete however short the process
/// lives. Needs a kernel of 5.8 or later with type information (BTF), CAP_BPF and CAP_PERFMON.
///
/// Waking the reader is the dearest part of an event. So an exec wakes a reader that sleeps deeply,
/// and a reader that just found events looks again a moment later instead of being woken for each;
/// forks and exits wake it only when they threaten to fill the ring.
class BpfProcessSource : public ProcessSource {
public:
    /// @param ringBytes  size of the ring buffer; rounded up to a power of two of whole pages
    explicit BpfProcessSource(std::size_t ringBytes);
    ~BpfProcessSource() override;

    std::string Name() const override { return "bpf"; }
    bool Start() override;
    void Stop() override;
    int Descriptor() const override;
    std::size_t Drain(const Sink& sink) override;
    int PrepareSleep(std::size_t drained) override;
    std::uint64_t LostEvents() const override;
    std::vector<LossCount> Losses() const override;

    /// How long a reader rests that found so many events of so much time.
    /// @return milliseconds
    static int RestMs(std::size_t events, std::chrono::nanoseconds time);

private:
    struct SkeletonCloser {
        void operator()(ProcessEvents* skeleton) const;
    };
    struct RingCloser {
        void operator()(ring_buffer* ring) const;
    };

    bool Load();
    bool Attach();
    std::uint64_t KernelCount(unsigned int reason) const;
    int HandleRecord(void* data, std::size_t size);
    static int OnRecord(void* context, void* data, std::size_t size);

    const std::size_t m_ringBytes;
    std::unique_ptr<ProcessEvents, SkeletonCloser> m_skeleton;
    std::unique_ptr<ring_buffer, RingCloser> m_ring;
    const Sink* m_sink = nullptr;  // while Drain runs
    std::size_t m_drained = 0;
    std::chrono::steady_clock::time_point m_lastRest;  // when the reader last went to rest
    std::uint64_t m_malformed = 0;
};

}  // namespace ProcessCollect
