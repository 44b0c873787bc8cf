#include "SocketChanges.h"

#include <algorithm>

namespace Agent {

namespace {

// Each socket may have many holders with long command lines; a line must stay well below its limit.
constexpr std::size_t kMaxInEvent = 64;

bool Same(const Engine::ProcsMessage::procInfo& one, const Engine::ProcsMessage::procInfo& other) {
    return one.m_pid == other.m_pid && one.m_ppid == other.m_ppid && one.m_name == other.m_name &&
           one.m_exePath == other.m_exePath && one.m_cmdline == other.m_cmdline &&
           one.m_parentName == other.m_parentName && one.m_startTime == other.m_startTime;
}

bool Same(const Engine::NetProcsMessage::netProcInfo& one,
          const Engine::NetProcsMessage::netProcInfo& other) {
    return one.m_port == other.m_port && one.m_protocol == other.m_protocol &&
           std::equal(one.m_processes.begin(), one.m_processes.end(), other.m_processes.begin(),
                      other.m_processes.end(), [](const auto& holder, const auto& otherHolder) {
                          return holder.first == otherHolder.first &&
                                 Same(*holder.second, *otherHolder.second);
                      });
}

/// Hands out events that have room for one more entry.
class Events {
public:
    RecordedEvent& Next() {
        if (m_events.empty() || m_used == kMaxInEvent) {
            m_events.emplace_back().m_kind = RecordedEvent::Kind::SOCKETS;
            m_used = 0;
        }
        ++m_used;
        return m_events.back();
    }

    std::vector<RecordedEvent> m_events;

private:
    std::size_t m_used = 0;
};

}  // namespace

std::vector<RecordedEvent> SocketChanges::Between(const SocketMap& before, const SocketMap& after) {
    Events events;
    for (const auto& [inode, socket] : before) {
        if (after.count(inode) == 0) {
            events.Next().m_closed.push_back(inode);
        }
    }
    for (const auto& [inode, socket] : after) {
        const auto known = before.find(inode);
        if (known == before.end() || !Same(*known->second, *socket)) {
            events.Next().m_opened.emplace(inode, socket);
        }
    }
    return std::move(events.m_events);
}

void SocketChanges::Apply(const RecordedEvent& change, SocketMap& table) {
    for (const long inode : change.m_closed) {
        table.erase(inode);
    }
    for (const auto& [inode, socket] : change.m_opened) {
        table[inode] = socket;
    }
}

}  // namespace Agent
