#pragma once

#include "framework/Message.h"
#include "process_collect/ProcsMessage.h"

#include <map>
#include <memory>
#include <utility>

namespace Engine {

/// A socket that is open for others, with the processes that hold it.
class NetProcsMessage : public Framework::Message {
public:
    /// One socket. Whoever receives it owns it.
    struct netProcInfo {
        int m_port = 0;
        int m_protocol = 0;  ///< 6 TCP, 17 UDP (RFC 790)
        std::map<int, std::shared_ptr<ProcsMessage::procInfo>> m_processes;  ///< holders by pid
    };

    explicit NetProcsMessage(std::shared_ptr<netProcInfo> info)
        : Framework::Message("procnet"), m_info(std::move(info)) {}

    /// @param info  set to the socket's record
    void GetNetProcInfo(std::shared_ptr<netProcInfo>& info) const { info = m_info; }

private:
    const std::shared_ptr<netProcInfo> m_info;
};

}  // namespace Engine
