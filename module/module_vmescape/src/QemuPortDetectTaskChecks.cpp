// What makes a port abnormal.

#include "QemuPortDetectPolicy.h"
#include "QemuPortDetectTask.h"
#include "VmEscapeLog.h"
#include "VmEscapeUtils.h"
#include "sdk/StrUtils.h"

#include <cstdlib>

namespace Engine {

namespace {

// RFC 6143 (4): display N listens at port 5900 + N.
constexpr long kVncBasePort = 5900;

constexpr int kDecimal = 10;

}  // namespace

void QemuPortDetectTask::CheckAbnormalNetPort(SocketTable& table) {
    SDK::LogDebug(m_logger, "NetProcSet size=%d", static_cast<int>(table.size()));
    for (const auto& [key, info] : table) {
        if (info == nullptr || info->m_processes.empty()) {
            SDK::LogError(m_logger, "netProcInfo is a null pointer");
            continue;
        }
        // A copy, which the collector's record cannot change under.
        ProcInfoMap processes = info->m_processes;
        CheckProcessAbnormalNetPort(processes, info->m_port, info->m_protocol);
    }
}

void QemuPortDetectTask::CheckAbnormalNetPort(
    std::vector<std::shared_ptr<Framework::Message>>& messages) {
    for (const std::shared_ptr<Framework::Message>& message : messages) {
        if (message == nullptr) {
            SDK::LogError(m_logger, "msgData is a null pointer");
            continue;
        }
        if (message->GetMsgType() == "procnet") {
            continue;
        }
        const auto* sockets = dynamic_cast<const NetProcsMessage*>(message.get());
        std::shared_ptr<NetProcsMessage::netProcInfo> info;
        if (sockets != nullptr) {
            sockets->GetNetProcInfo(info);
        }
        if (info != nullptr) {
            CheckProcessAbnormalNetPort(info->m_processes, info->m_port, info->m_protocol);
        }
    }
}

bool QemuPortDetectTask::CheckProcessAbnormalNetPort(ProcInfoMap& processes, int port,
                                                     int secondNumber) {
    for (const auto& [pid, info] : processes) {
        if (info == nullptr) {
            SDK::LogError(m_logger, "procInfo is null in processList");
            continue;
        }
        if (!IsMonitorProcess(info->m_name)) {
            continue;
        }
        SDK::LogDebug(m_logger, "Porcess(name:%s) is  monitor process", info->m_name);
        if (FilterVncPort(info->m_name, info->m_cmdline, port)) {
            SDK::LogDebug(m_logger, "Process(name:%s) open vnc port(%d)", info->m_name, port);
            return false;
        }
        std::string abnormalPort;
        if (!MatchMonitorRule(info->m_name, port, secondNumber, abnormalPort)) {
            return false;
        }
        SendAlarm(info->m_name, info->m_pid, abnormalPort, info->m_cmdline);
        return true;
    }
    SDK::LogDebug(m_logger, "No process is found in the monitoring list.");
    return false;
}

bool QemuPortDetectTask::FilterVncPort(const std::string& /*processName*/,
                                       const std::string& commandLine, int port) {
    std::string display;
    VmEscapeUtils::GetItemFromCmdline(commandLine, "-vnc", display);
    if (display == VmEscapeUtils::UNKNOWN) {
        return false;
    }
    std::vector<std::string> pieces;
    SDK::StrUtils::Split(display, ":", pieces);
    if (pieces.size() < 2) {
        return false;
    }
    // Reads as far as there are digits; no digits are display 0.
    return std::strtol(pieces[1].c_str(), nullptr, kDecimal) == long{port} - kVncBasePort;
}

bool QemuPortDetectTask::IsMonitorProcess(const std::string& processName) {
    const auto policy = GetDetectPolicy<QemuPortDetectPolicy>(
        *this, m_logger, "m_featurePolicy is null pointer in QemuPortDetectTask::IsMonitorProcess");
    return policy != nullptr && policy->IsMonitorProcess(processName);
}

bool QemuPortDetectTask::MatchMonitorRule(const std::string& processName, int port,
                                          int secondNumber, std::string& abnormalPort) {
    const auto policy = GetDetectPolicy<QemuPortDetectPolicy>(
        *this, m_logger, "m_featurePolicy is null pointer in QemuPortDetectTask::MatchMonitorRule");
    return policy != nullptr &&
           policy->MatchMonitorRule(processName, std::to_string(port), std::to_string(secondNumber),
                                    abnormalPort) != 0;
}

}  // namespace Engine
