#pragma once

#include "ConnectorMessageReader.h"
#include "ProcReader.h"
#include "ProcessSource.h"

#include <map>
#include <set>

namespace ProcessCollect {

/// Process events from the kernel's process connector (netlink), completed from /proc. The fallback
/// where eBPF is not to be had. Its limits, which it also tells the log:
/// - what a process was called with is not known when it has ended before it could be asked;
/// - the parent of a process forked with CLONE_PARENT is the one that the kernel made its parent.
/// Needs CAP_NET_ADMIN and CAP_SYS_PTRACE in the first namespaces.
class ConnectorProcessSource : public ProcessSource {
public:
    ConnectorProcessSource() = default;
    ~ConnectorProcessSource() override;

    std::string Name() const override { return "connector"; }
    bool Start() override;
    void Stop() override;
    int Descriptor() const override { return m_socket; }
    std::size_t Drain(const Sink& sink) override;
    int PrepareSleep(std::size_t drained) override;
    std::uint64_t LostEvents() const override;
    std::vector<LossCount> Losses() const override;

    /// Reads one datagram. Open for tests: the kernel sends no malformed ones.
    /// @return how many events went to the sink
    std::size_t HandleDatagram(const void* data, std::size_t size, const Sink& sink);

private:
    bool Open();
    bool Listen();
    bool WaitForAnswer();
    void CountGap(const ConnectorMessage& message);
    bool HandleMessage(const ConnectorMessage& message, const Sink& sink);
    bool HandleFork(const ConnectorMessage& message, const Sink& sink);
    bool HandleExec(const ConnectorMessage& message, const Sink& sink);
    bool HandleExit(const ConnectorMessage& message, const Sink& sink);

    int m_socket = -1;
    std::map<std::uint32_t, std::uint32_t> m_nextNumber;  // by processor
    std::set<int> m_leaderless;  // processes whose first thread ended before others
    std::uint64_t m_overruns = 0;
    std::uint64_t m_unexplained = 0;  // overruns whose lost messages have not been noticed yet
    std::uint64_t m_gaps = 0;
    std::uint64_t m_malformed = 0;
    std::uint64_t m_tooLate = 0;
};

}  // namespace ProcessCollect
