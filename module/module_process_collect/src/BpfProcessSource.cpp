#include "BpfProcessSource.h"

#include "ProcessCollectLog.h"
#include "ProcessRecord.h"
#include "ProcessRecordReader.h"

#include <Poco/Error.h>

#include <bpf/libbpf.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <utility>

// The generated header is C.
#include "ProcessEvents.skel.h"

namespace ProcessCollect {

namespace {

// How long a reader that just found events rests before it looks again. Measured: one millisecond
// less doubles the wake-ups of a storm, one more is felt in the alarms' delay.
constexpr int kRestMs = 2;

// With more events than this in a millisecond, some 1,700 commands a second, the host is so busy
// that each wake-up of the reader takes a processor from the work that it watches. Measured with
// two storms on two processors: they lose 7 % to a reader that rests 2 ms, 4 % at 8 ms, 2 % at 16
// ms. An alarm in such a storm comes later by as much.
constexpr double kBusyEventsPerMs = 5;
constexpr int kBusyRestMs = 16;

// How late a fork or an exit is told when no exec follows it.
constexpr int kDeepSleepMs = 200;

// Unread bytes, as a part of the ring, at which forks and exits wake the reader too.
constexpr std::size_t kWakeDivisor = 8;

constexpr const char* kKernelTypes = "/sys/kernel/btf/vmlinux";

// What libbpf has to say is for whoever searches a failure; our own line names the consequence.
int LogLibrary(enum libbpf_print_level level, const char* format, va_list arguments) {
    if (level == LIBBPF_DEBUG) {
        return 0;
    }
    std::array<char, 512> line;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::vsnprintf(line.data(), line.size(), format, arguments);  // the library's own format
#pragma GCC diagnostic pop
    std::string text(line.data());
    text.resize(text.find_last_not_of('\n') + 1);
    SDK::LogDebug(Logger(), "%s", text);
    return 0;
}

const char* LossReason(unsigned int reason) {
    switch (reason) {
        case PROCESS_LOSS_FORK_RING_FULL:
            return "fork, ring full";
        case PROCESS_LOSS_EXEC_RING_FULL:
            return "exec, ring full";
        case PROCESS_LOSS_EXIT_RING_FULL:
            return "exit, ring full";
        case PROCESS_LOSS_NO_SCRATCH:
            return "exec, no memory";
        case PROCESS_DEFECT_ARGUMENTS_CUT:
            return "arguments cut";
        case PROCESS_DEFECT_ARGUMENTS_UNREADABLE:
            return "arguments unreadable";
        default:
            return "path too deep";
    }
}

bool LosesEvent(unsigned int reason) { return reason < PROCESS_DEFECT_ARGUMENTS_CUT; }

}  // namespace

void BpfProcessSource::SkeletonCloser::operator()(ProcessEvents* skeleton) const {
    ProcessEvents__destroy(skeleton);
}

void BpfProcessSource::RingCloser::operator()(ring_buffer* ring) const { ring_buffer__free(ring); }

BpfProcessSource::BpfProcessSource(std::size_t ringBytes)
    : m_ringBytes(std::bit_ceil(std::max(ringBytes, static_cast<std::size_t>(::getpagesize())))) {}

BpfProcessSource::~BpfProcessSource() { Stop(); }

bool BpfProcessSource::Start() {
    if (::access(kKernelTypes, R_OK) != 0) {
        SDK::LogWarning(Logger(),
                        "The eBPF process source needs a kernel with type information(%s): %s",
                        std::string(kKernelTypes), Poco::Error::getMessage(errno));
        return false;
    }
    // The print function is the whole process's, and this library may be unloaded: it is given
    // back.
    const libbpf_print_fn_t previous = libbpf_set_print(LogLibrary);
    const bool started = Load() && Attach();
    libbpf_set_print(previous);
    if (!started) {
        Stop();
    }
    return started;
}

void BpfProcessSource::Stop() {
    m_ring.reset();
    m_skeleton.reset();
}

bool BpfProcessSource::Load() {
    m_malformed = 0;
    m_skeleton.reset(ProcessEvents__open());
    if (m_skeleton == nullptr) {
        SDK::LogError(Logger(), "The eBPF programs cannot be opened: %s",
                      Poco::Error::getMessage(errno));
        return false;
    }
    bpf_map__set_max_entries(m_skeleton->maps.events, static_cast<__u32>(m_ringBytes));
    m_skeleton->bss->shared.wakeThreshold = static_cast<__u32>(m_ringBytes / kWakeDivisor);
    const int result = ProcessEvents__load(m_skeleton.get());
    if (result == -EPERM || result == -EACCES) {
        SDK::LogWarning(Logger(),
                        "The eBPF process source needs the capabilities CAP_BPF and CAP_PERFMON "
                        "(or root): %s",
                        Poco::Error::getMessage(-result));
    } else if (result != 0) {
        SDK::LogWarning(Logger(), "The kernel refuses the eBPF programs: %s",
                        Poco::Error::getMessage(-result));
    }
    return result == 0;
}

bool BpfProcessSource::Attach() {
    m_ring.reset(ring_buffer__new(bpf_map__fd(m_skeleton->maps.events), OnRecord, this, nullptr));
    if (m_ring == nullptr) {
        SDK::LogError(Logger(), "The eBPF ring buffer(%lu bytes) cannot be mapped: %s",
                      static_cast<unsigned long>(m_ringBytes), Poco::Error::getMessage(errno));
        return false;
    }
    const int result = ProcessEvents__attach(m_skeleton.get());
    if (result != 0) {
        SDK::LogWarning(Logger(), "The eBPF programs cannot be attached: %s",
                        Poco::Error::getMessage(-result));
    }
    return result == 0;
}

int BpfProcessSource::Descriptor() const {
    return m_ring == nullptr ? -1 : bpf_map__fd(m_skeleton->maps.events);
}

std::size_t BpfProcessSource::Drain(const Sink& sink) {
    if (m_ring == nullptr) {
        return 0;
    }
    m_sink = &sink;
    m_drained = 0;
    ring_buffer__consume(m_ring.get());
    m_sink = nullptr;
    return m_drained;
}

int BpfProcessSource::PrepareSleep(std::size_t drained) {
    if (m_ring == nullptr) {
        return kDeepSleepMs;
    }
    std::atomic_ref<__u32> asleep(m_skeleton->bss->shared.readerAsleep);
    if (drained != 0) {
        asleep.store(0, std::memory_order_relaxed);
        const auto now = std::chrono::steady_clock::now();
        return RestMs(drained, now - std::exchange(m_lastRest, now));
    }
    // An exchange, which no later read overtakes, and followed by the caller's last Drain: either
    // that one sees a record, or the program that commits it sees the flag.
    asleep.exchange(1, std::memory_order_seq_cst);
    return kDeepSleepMs;
}

int BpfProcessSource::RestMs(std::size_t events, std::chrono::nanoseconds time) {
    // The time that has passed, not the rest that was asked for: a reader that was woken late finds
    // more, which says nothing of the host.
    const auto busy = kBusyEventsPerMs * std::chrono::duration<double, std::milli>(time).count();
    return static_cast<double>(events) > busy ? kBusyRestMs : kRestMs;
}

std::uint64_t BpfProcessSource::LostEvents() const {
    std::uint64_t lost = m_malformed;
    for (unsigned int reason = 0; reason < PROCESS_LOSS_REASONS; ++reason) {
        lost += LosesEvent(reason) ? KernelCount(reason) : 0;
    }
    return lost;
}

std::vector<LossCount> BpfProcessSource::Losses() const {
    std::vector<LossCount> losses;
    for (unsigned int reason = 0; reason < PROCESS_LOSS_REASONS; ++reason) {
        losses.push_back(LossCount{LossReason(reason), KernelCount(reason), LosesEvent(reason)});
    }
    losses.push_back(LossCount{"malformed", m_malformed, true});
    return losses;
}

std::uint64_t BpfProcessSource::KernelCount(unsigned int reason) const {
    if (m_skeleton == nullptr || m_skeleton->bss == nullptr) {
        return 0;
    }
    return std::atomic_ref(m_skeleton->bss->shared.losses[reason]).load(std::memory_order_relaxed);
}

int BpfProcessSource::OnRecord(void* context, void* data, std::size_t size) {
    return static_cast<BpfProcessSource*>(context)->HandleRecord(data, size);
}

int BpfProcessSource::HandleRecord(void* data, std::size_t size) {
    ProcessEvent event;
    if (!ProcessRecordReader::Read(data, size, event)) {
        ++m_malformed;
        return 0;
    }
    ++m_drained;
    (*m_sink)(event);
    return 0;
}

}  // namespace ProcessCollect
