// What makes an access sensitive.

#include "QemuFileDetectPolicy.h"
#include "QemuFileDetectTask.h"
#include "VmEscapeLog.h"
#include "VmEscapeUtils.h"
#include "sdk/FileUtils.h"

#include <array>

namespace Engine {

namespace {

// Every start of a QEMU looks for them.
constexpr std::array<const char*, 3> kIgnored = {"/etc/system-fips", "/usr/share/qemu",
                                                 "/usr/pc-bios"};

}  // namespace

void QemuFileDetectTask::CheckSensitiveFile(
    std::vector<std::shared_ptr<Framework::Message>>& messages) {
    SDK::LogDebug(m_logger, "MsgVector size is %lu in CheckSensitiveFile", messages.size());
    for (const std::shared_ptr<Framework::Message>& message : messages) {
        if (message == nullptr) {
            SDK::LogError(m_logger,
                          "MsgData is null ptr in QemuFileDetectTask::CheckSensitiveFile");
            continue;
        }
        if (message->GetMsgType() != "filenotify") {
            SDK::LogError(m_logger,
                          "MsgData(msgType:%s) is not filenotify message in "
                          "QemuFileDetectTask::CheckSensitiveFile",
                          message->GetMsgType());
            continue;
        }
        const auto* event = dynamic_cast<const FileNotifyMessage*>(message.get());
        if (event != nullptr) {
            CheckEvent(*event);
        }
    }
}

int QemuFileDetectTask::FileNotifyMessageAction(FileNotifyMessage* message) {
    return message != nullptr && CheckEvent(*message) ? 0 : -1;
}

bool QemuFileDetectTask::CheckEvent(const FileNotifyMessage& message) {
    const int pid = message.GetEventProcessId();
    const int mask = message.GetEventMask();
    const std::string& path = message.GetEventFilePath();
    if (mask < 1 || pid < 1) {
        SDK::LogError(m_logger,
                      "MsgData(pid:%d,filepath:%s,filemask:%d) is error in CheckSensitiveFile", pid,
                      path, mask);
        return false;
    }
    SDK::LogDebug(m_logger, "Process(%d) access file:(path:%s,mask:%d)", pid, path, mask);
    return CheckProcessAccessSensitiveFile(pid, path, mask);
}

bool QemuFileDetectTask::CheckProcessAccessSensitiveFile(int pid, const std::string& filePath,
                                                         int mask) {
    if (QuickFilterFile(filePath)) {
        SDK::LogDebug(m_logger, "File:(%s) is filterd", filePath);
        return false;
    }
    std::string processName;
    std::string monitorProcess;
    int ppid = 0;
    if (CheckProcessIsInMonitorList(pid, processName, ppid)) {
        monitorProcess = processName;
    } else if (ppid < 1) {
        return false;
    } else if (!CheckParentProcessIsInMonitorList(ppid, monitorProcess)) {
        SDK::LogDebug(m_logger,
                      "The process(%d) that accesses the file(%s) is not a monitoring process.",
                      pid, filePath);
        return false;
    }
    if (!IsSenstiveFileAccess(monitorProcess, filePath)) {
        return false;
    }
    SDK::LogDebug(m_logger, "Process(name:%s,pid:%d) access sensitive file:(%s) ", processName, pid,
                  filePath);
    std::string action;
    GetFileAction(static_cast<unsigned int>(mask), action);
    SendAlarm(monitorProcess, processName, pid, filePath, action);
    return true;
}

bool QemuFileDetectTask::QuickFilterFile(std::string filePath) {
    if (!SDK::FileUtils::IsFile(filePath)) {
        SDK::LogDebug(m_logger, "filePath:(%s) is not a file", filePath);
        return true;
    }
    for (const char* ignored : kIgnored) {
        // Asks whether the path is a beginning of the entry, so that an entry which is a directory
        // excuses none of the files below it.
        if (VmEscapeUtils::QuickCompareString(filePath.c_str(), ignored, 0)) {
            SDK::LogDebug(m_logger, "filePath:(%s) is ignore file", filePath);
            return true;
        }
    }
    return false;
}

bool QemuFileDetectTask::IsMonitorProcess(const std::string& processName) {
    const auto policy = GetDetectPolicy<QemuFileDetectPolicy>(
        *this, m_logger, "m_featurePolicy is null pointer in QemuFileDetectTask::IsMonitorProcess");
    return policy != nullptr && policy->IsMonitorProcess(processName);
}

bool QemuFileDetectTask::IsSenstiveFileAccess(const std::string& monitorProcess,
                                              const std::string& filePath) {
    const auto policy = GetDetectPolicy<QemuFileDetectPolicy>(
        *this, m_logger,
        "m_featurePolicy is null pointer in QemuFileDetectTask::IsSenstiveFileAccess");
    return policy != nullptr && policy->MatchMonitorRule(monitorProcess, filePath);
}

void QemuFileDetectTask::GetFileAction(unsigned int mask, std::string& action) {
    if ((mask & FileNotifyMessage::ACCESS) != 0) {
        action = "access";
    } else if ((mask & FileNotifyMessage::OPEN) != 0) {
        action = "open";
    } else if ((mask & FileNotifyMessage::MODIFY) != 0) {
        action = "modify";
    } else if ((mask & (FileNotifyMessage::CLOSE_WRITE | FileNotifyMessage::CLOSE_NOWRITE)) != 0) {
        action = "close";
    } else {
        action = "unkonw";
    }
}

}  // namespace Engine
