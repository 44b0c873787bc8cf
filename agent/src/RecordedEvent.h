#pragma once

#include "net_collect/NetProcsMessage.h"
#include "process_collect/ProcsMessage.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

/// The table of "netproc_full_task": sockets by their inode numbers.
using SocketMap = std::map<long, std::shared_ptr<Engine::NetProcsMessage::netProcInfo>>;

/// The first line of a recording: where it comes from.
struct RecordingHeader {
    std::string m_host;
    std::string m_agent;    ///< version of the agent
    std::string m_started;  ///< for people, ISO 8601
    std::string m_shells;   ///< the host's /etc/shells, which the module asks for
    bool m_hasShells = false;
};

/// Any other line of a recording: something that the module of a live agent is told, or asks for.
struct RecordedEvent {
    enum class Kind {
        SNAPSHOT,  ///< one of the processes that live: m_process; m_left more follow
        FORK,      ///< m_process
        EXEC,      ///< m_process
        EXIT,      ///< m_process.m_pid
        FILE,      ///< m_process.m_pid, m_mask, m_path, m_regular
        SOCKETS,   ///< m_opened, m_closed: how the table differs from what it was before
        WATCH,     ///< m_path is watched from now on; it leads to m_realPath
        UNWATCH,   ///< m_path no longer
        GAP,       ///< m_lost events are missing here, because of m_reason
        END,       ///< of the recording, because of m_reason
    };

    Kind m_kind = Kind::END;
    std::int64_t m_at = 0;  ///< microseconds since the epoch
    Engine::ProcsMessage::procInfo m_process;
    std::uint64_t m_left = 0;
    int m_mask = 0;
    std::string m_path;
    std::string m_realPath;
    bool m_regular = true;  ///< m_path led to a regular file when the event was recorded
    SocketMap m_opened;     ///< new, or with another port or other holders than before
    std::vector<long> m_closed;
    std::uint64_t m_lost = 0;
    std::string m_reason;
};

}  // namespace Agent
