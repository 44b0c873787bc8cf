#include "SocketTable.h"

#include "NetCollectLog.h"
#include "ProcFolder.h"
#include "sdk/ProcessUtils.h"

#include <Poco/Error.h>

#include <unordered_map>
#include <utility>

namespace NetCollect {

namespace {

using Info = Engine::ProcsMessage::procInfo;

constexpr int kCmdlineBytes = 4096;

/// What is known of a process; null when nothing is.
std::shared_ptr<Info> Describe(int pid) {
    SDK::ProcessUtils::procStatus status;
    if (SDK::ProcessUtils::GetProcessStatusInfo(pid, status) != 0) {
        return nullptr;
    }
    auto info = std::make_shared<Info>();
    info->m_pid = pid;
    info->m_ppid = status.m_ppid;
    info->m_name = status.m_name;
    info->m_exePath = ProcFolder::ExePath(pid);
    SDK::ProcessUtils::GetProcessCmdline(pid, info->m_cmdline, kCmdlineBytes);
    if (SDK::ProcessUtils::GetProcessStatusInfo(info->m_ppid, status) == 0) {
        info->m_parentName = status.m_name;
    }
    return info;
}

}  // namespace

SocketTable::SocketTable(std::unique_ptr<HolderSource> holders) : m_holders(std::move(holders)) {}

void SocketTable::Read(Table& table) {
    const SDK::LockGuard lock(m_mutex);
    std::vector<Socket> sockets;
    Holders holders;
    const bool whole = ReadSockets(sockets);
    const bool held = ReadHolders(sockets, holders);
    if (held) {
        Fill(sockets, holders, table);
    }
    ++(whole && held ? m_counters.m_tables : m_counters.m_failedTables);
    m_failing = !(whole && held);
}

bool SocketTable::ReadSockets(std::vector<Socket>& sockets) {
    const NetNamespaces::Outcome outcome = m_namespaces.ReadSockets(sockets);
    m_counters.m_failedNamespaces += outcome.m_failed;
    m_counters.m_goneNamespaces += outcome.m_gone;
    m_counters.m_repeats = m_namespaces.Repeats();
    const auto number = [](std::size_t value) { return static_cast<unsigned long>(value); };
    if (outcome.m_hidden > 0 && m_counters.m_hiddenProcesses == 0) {
        SDK::LogWarning(Logger(),
                        "The network namespaces of %lu processes cannot be told: %s. Sockets of "
                        "namespaces in which only such processes live are missing; this is said "
                        "once.",
                        number(outcome.m_hidden), Poco::Error::getMessage(outcome.m_hiddenError));
    }
    m_counters.m_hiddenProcesses += outcome.m_hidden;
    if (outcome.m_failed > 0 && !m_failing) {
        SDK::LogError(Logger(),
                      "The socket table is not whole: the sockets of %lu network namespaces cannot "
                      "be read: %s. %lu were read. This is said again only after a whole table.",
                      number(outcome.m_failed), Poco::Error::getMessage(outcome.m_error),
                      number(outcome.m_read));
    }
    return outcome.m_failed == 0;
}

bool SocketTable::ReadHolders(const std::vector<Socket>& sockets, Holders& holders) {
    SocketSet wanted;
    for (const Socket& socket : sockets) {
        wanted.insert(socket.m_inode);
    }
    if (m_holders->Read(wanted, holders)) {
        return true;
    }
    ++m_counters.m_fallbacks;
    return m_fallback.Read(wanted, holders);
}

void SocketTable::Fill(const std::vector<Socket>& sockets, const Holders& holders, Table& table) {
    std::unordered_map<int, std::shared_ptr<Info>> known;
    for (const Socket& socket : sockets) {
        const auto held = holders.find(socket.m_inode);
        if (held == holders.end()) {
            ++m_counters.m_heldByNobody;
            continue;
        }
        auto entry = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
        entry->m_port = socket.m_port;
        entry->m_protocol = socket.m_protocol;
        for (const int pid : held->second) {
            auto [found, added] = known.try_emplace(pid);
            if (added) {
                found->second = Describe(pid);
                m_counters.m_goneHolders += found->second == nullptr ? 1 : 0;
            }
            if (found->second != nullptr) {
                // A record of its own for each socket: the receiver may write to it.
                entry->m_processes.emplace(pid, std::make_shared<Info>(*found->second));
            }
        }
        if (!entry->m_processes.empty()) {
            table[static_cast<long>(socket.m_inode)] = std::move(entry);
        }
    }
}

SDK::Ledger SocketTable::GetLedger() const {
    const SDK::LockGuard lock(m_mutex);
    SDK::Ledger books;
    books.m_name = "socket_tables";
    books.m_by = m_holders->Name();
    books.m_seen = m_counters.m_tables + m_counters.m_failedTables;
    books.m_delivered = m_counters.m_tables;
    books.m_lost = {{"incomplete", m_counters.m_failedTables}};
    if (m_failing) {
        books.m_trouble = "The last table of sockets could not be read in full";
    }
    return books;
}

SocketTable::Counters SocketTable::GetCounters() const {
    const SDK::LockGuard lock(m_mutex);
    return m_counters;
}

}  // namespace NetCollect
