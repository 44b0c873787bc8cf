#pragma once

#include "sdk/LatencyHistogram.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace SDK {

/// What one part of the agent was given, and where it went, so that nothing is lost silently:
///
///     m_seen == m_delivered + m_waiting + Filtered() + Lost()
struct Ledger {
    std::string m_name;  ///< what is counted, as one word: "process_events"
    std::string m_by;    ///< by what means, or where to: "bpf", "syslog:tcp:log:514"
    std::uint64_t m_seen = 0;
    std::uint64_t m_delivered = 0;
    std::uint64_t m_waiting = 0;
    std::map<std::string, std::uint64_t> m_filtered;  ///< left out on purpose, by reason
    std::map<std::string, std::uint64_t> m_lost;      ///< by reason
    std::map<std::string, std::uint64_t> m_kinds;  ///< how many of which kind, as far as the part
                                                   ///< can tell; empty where it tells none apart
    std::map<std::string, std::uint64_t> m_machines;  ///< virtual machines that the delivered name,
                                                      ///< by kind; empty where nobody tells
    std::optional<LatencyHistogram> m_latency;  ///< how long it took to deliver; none where nobody
                                                ///< measures it
    std::int64_t m_lastS = 0;  ///< when the last was delivered, in seconds since the epoch; 0: not
                               ///< yet, or nobody keeps it
    std::string m_trouble;     ///< why the part does not do all that it should; "" when it does

    std::uint64_t Filtered() const;
    std::uint64_t Lost() const;

    /// True when everything is accounted for.
    bool Balanced() const { return m_seen == m_delivered + m_waiting + Filtered() + Lost(); }
};

/// Keeps a ledger open for readers for as long as it lives.
///
/// Threads: any. The source is called on the readers' threads, one at a time; when the destructor
/// returns, no reader is inside it any more. The source must not open or close ledgers.
class OpenLedger {
public:
    /// Gives the ledger as it is at the moment.
    using Source = std::function<Ledger()>;

    explicit OpenLedger(Source source);
    ~OpenLedger();
    OpenLedger(const OpenLedger&) = delete;
    OpenLedger& operator=(const OpenLedger&) = delete;

    /// All that are open, in the order of their opening.
    static std::vector<Ledger> ReadAll();

private:
    const std::uint64_t m_number;
};

}  // namespace SDK
