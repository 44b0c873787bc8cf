#pragma once

#include "HolderSource.h"
#include "NetNamespaces.h"
#include "ProcHolderSource.h"
#include "net_collect/NetProcsMessage.h"
#include "sdk/Ledger.h"
#include "sdk/Mutex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace NetCollect {

/// The table of all sockets that are open for others, with their holders; read anew each time.
///
/// First the sockets are read, then who holds them. What is closed in between has no holder any
/// more and is left out, as are the kernel's own sockets; what is opened in between comes next
/// time.
///
/// Threads: any; one reads at a time.
class SocketTable {
public:
    using Table = std::map<long, std::shared_ptr<Engine::NetProcsMessage::netProcInfo>>;

    /// What went how often, since the object was made.
    struct Counters {
        std::uint64_t m_tables = 0;            ///< read in full
        std::uint64_t m_failedTables = 0;      ///< not read, or without the sockets of a namespace
        std::uint64_t m_failedNamespaces = 0;  ///< whose sockets could not be read
        std::uint64_t m_goneNamespaces = 0;    ///< that ended while they were about to be read
        std::uint64_t m_hiddenProcesses = 0;   ///< whose namespace could not be told
        std::uint64_t m_repeats = 0;           ///< lists that had to be asked for again
        std::uint64_t m_fallbacks = 0;         ///< times that the slower source of holders stood in
        std::uint64_t m_heldByNobody = 0;      ///< sockets without a process
        std::uint64_t m_goneHolders = 0;       ///< processes of which nothing is known any more
    };

    /// @param holders  started already
    explicit SocketTable(std::unique_ptr<HolderSource> holders);

    /// Adds every socket to the table. A table that could not be read in full is logged as such.
    void Read(Table& table);

    Counters GetCounters() const;

    /// How many tables were asked for, and how many could not be read in full.
    SDK::Ledger GetLedger() const;

private:
    bool ReadSockets(std::vector<Socket>& sockets) SDK_REQUIRES(m_mutex);
    bool ReadHolders(const std::vector<Socket>& sockets, Holders& holders) SDK_REQUIRES(m_mutex);
    void Fill(const std::vector<Socket>& sockets, const Holders& holders, Table& table)
        SDK_REQUIRES(m_mutex);

    mutable SDK::Mutex m_mutex;
    NetNamespaces m_namespaces SDK_GUARDED_BY(m_mutex);
    const std::unique_ptr<HolderSource> m_holders SDK_GUARDED_BY(m_mutex);
    ProcHolderSource m_fallback SDK_GUARDED_BY(m_mutex);
    Counters m_counters SDK_GUARDED_BY(m_mutex);
    bool m_failing SDK_GUARDED_BY(m_mutex) = false;
};

}  // namespace NetCollect
