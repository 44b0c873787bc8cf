// What makes a command sensitive.

#include "QemuCmdDetectPolicy.h"
#include "QemuCmdDetectTask.h"
#include "VmEscapeLog.h"
#include "VmEscapeUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/StrUtils.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace Engine {

namespace {

constexpr const char* kShellsFile = "/etc/shells";
constexpr std::size_t kShellsFileBytes = 4096;

constexpr const char* kModePolicy = "system/fork";
constexpr const char* kModeShell = "shell";
constexpr const char* kModeForbiddenDir = "forbidden dir";

constexpr std::string_view kTmpDir = "/tmp/";

// What system(3) makes of a shell that is started without its path.
constexpr std::array<std::string_view, 4> kShellsInShells = {"sh -c bash", "sh -c sh", "sh -c csh",
                                                             "sh -c tcsh"};

bool BeginsWith(const std::string& text, std::string_view beginning) {
    return VmEscapeUtils::QuickCompareString(beginning.data(), text.c_str(),
                                             static_cast<unsigned int>(beginning.size()));
}

}  // namespace

bool QemuCmdDetectTask::CheckSensitiveCmd(const ProcInfoPtr& info) {
    if (info == nullptr) {
        return false;
    }
    if (IsMonitorProcess(info->m_name, info->m_pid)) {
        SDK::LogDebug(m_logger, "%s is monitor process", info->m_name);
        return false;
    }
    std::string monitorProcess;
    if (!CheckParentProcessIsInMonitorList(info, monitorProcess)) {
        return false;
    }
    std::string escapeMode;
    if (!CheckProcessIsExecSensitiveCmd(info, monitorProcess, escapeMode)) {
        return false;
    }
    SendAlarm(info, monitorProcess, escapeMode);
    return true;
}

bool QemuCmdDetectTask::CheckParentProcessIsInMonitorList(const ProcInfoPtr& info,
                                                          std::string& monitorProcess) {
    if (info == nullptr) {
        return false;
    }
    SDK::LogDebug(m_logger, "Check whether the parent process of process(%d,%s) is in monitor list",
                  info->m_pid, info->m_name);
    const auto parent = m_monitorPidMap.find(info->m_ppid);
    if (parent != m_monitorPidMap.end()) {
        monitorProcess = parent->second;
        return true;
    }
    if (IsMonitorProcess(info->m_parentName, info->m_ppid)) {
        monitorProcess = info->m_parentName;
        return true;
    }
    SDK::LogDebug(m_logger, "The parent process of process(%d,%s) is not in monitor list",
                  info->m_pid, info->m_name);
    return false;
}

bool QemuCmdDetectTask::CheckProcessIsExecSensitiveCmd(const ProcInfoPtr& info,
                                                       const std::string& monitorProcess,
                                                       std::string& escapeMode) {
    // The comma behind the parent's name is full-width (U+FF0C): the lines are searched for with
    // it.
    if (IsSensitiveCmd(monitorProcess, info->m_name, info->m_cmdline, info->m_exePath)) {
        escapeMode = kModePolicy;
        SDK::LogDebug(m_logger, "Process(%s，pid:%d) system/fork sensitive command(%s,pid:%d)",
                      info->m_parentName, info->m_ppid, info->m_cmdline, info->m_pid);
        return true;
    }
    if (IsShellCmd(info->m_cmdline)) {
        escapeMode = kModeShell;
        SDK::LogDebug(m_logger, "Process(%s，pid:%d) start %s(%s)", info->m_parentName,
                      info->m_ppid, escapeMode, info->m_cmdline);
        return true;
    }
    if (IsExecCmdInTmpDir(info->m_cmdline)) {
        escapeMode = kModeForbiddenDir;
        SDK::LogDebug(m_logger, "Process(%s，pid:%d) access cmd:%s in %s", info->m_parentName,
                      info->m_ppid, info->m_cmdline, escapeMode);
        return true;
    }
    return false;
}

bool QemuCmdDetectTask::IsSensitiveCmd(const std::string& monitorProcess,
                                       const std::string& processName, const std::string& cmdline,
                                       const std::string& exePath) {
    const auto policy = GetDetectPolicy<QemuCmdDetectPolicy>(
        *this, m_logger, "m_featurePolicy is null pointer in QemuCmdDetectTask::IsSensitiveCmd");
    return policy != nullptr &&
           policy->MatchMonitorRule(monitorProcess, processName, cmdline, exePath);
}

bool QemuCmdDetectTask::IsShellCmd(const std::string& cmdline) {
    const bool isSystemShell =
        std::any_of(m_shellList.begin(), m_shellList.end(), [&cmdline](const std::string& shell) {
            return VmEscapeUtils::QuickCompareString(shell.c_str(), cmdline.c_str(), 0);
        });
    return isSystemShell ||
           std::any_of(kShellsInShells.begin(), kShellsInShells.end(),
                       [&cmdline](std::string_view shell) { return BeginsWith(cmdline, shell); });
}

bool QemuCmdDetectTask::IsExecCmdInTmpDir(const std::string& cmdline) {
    return BeginsWith(cmdline, kTmpDir);
}

void QemuCmdDetectTask::GetSystemShellList() {
    m_shellList.clear();
    bool truncated = false;
    std::string content;
    if (SDK::FileUtils::ReadFile(kShellsFile, truncated, content, kShellsFileBytes) != 0) {
        return;
    }
    SDK::StrUtils::Split(content, "\n", m_shellList);
    SDK::LogDebug(m_logger, "Read system shell file(%s)", std::string(kShellsFile));
}

}  // namespace Engine
