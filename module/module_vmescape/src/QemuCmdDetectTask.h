#pragma once

#include "framework/AbstractMessageReceiver.h"
#include "framework/Message.h"
#include "framework/Task.h"
#include "process_collect/ProcsMessage.h"

#include <Poco/Logger.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Engine {

/// Watches the process tree below every virtual machine for commands that none should run.
///
/// A process belongs to a tree when its name has a rule, or when its parent belongs to the tree; a
/// descendant carries the name of the program at the root. What exits is kept for 300 seconds, so
/// that late events of its children still find it.
///
/// Threads: everything runs on the task's own thread; the maps have no lock. ProcsMessageAction
/// would run on a collector's thread; a collector that used it would have to keep off while Run
/// runs. The collectors of this agent send messages instead.
class QemuCmdDetectTask : public Framework::Task, public AbstractMessageReceiver {
public:
    /// One alarm that was sent, kept so that it is not sent again.
    struct CMD_WARN_INFO {
        std::int64_t warnTime = 0;  ///< when it was sent, seconds since the epoch
        int ppid = 0;
        int pid = 0;
        std::string parentName;
        std::string procName;
        std::string cmdline;  ///< for people; repeats are told without it
    };
    using ProcInfoPtr = std::shared_ptr<ProcsMessage::procInfo>;
    using ProcInfoMap = std::map<int, ProcInfoPtr>;

    QemuCmdDetectTask();
    ~QemuCmdDetectTask() override;

    /// Registers with the process collector. @return 0
    int Init() override;

    /// Ends the registrations and forgets everything. @return 0
    int UnInit() override;

    /// Reads all processes once, then handles events until the task is cancelled. @return 0
    int Run() override;

    /// One process event by direct call: flags 1 and 2 are starts, 3 is an exit, others are
    /// ignored.
    void ProcsMessageAction(int pid, unsigned int flag,
                            std::shared_ptr<ProcsMessage::procInfo> info) override;

    /// Sends the alarm about a process, unless it is a repeat or the process has no name.
    /// @param info            filled with the command line when it has none
    /// @param monitorProcess  the virtualization program at the root of the tree
    /// @param escapeMode      "system/fork", "shell" or "forbidden dir"
    virtual void SendAlarm(ProcInfoPtr info, const std::string& monitorProcess,
                           const std::string& escapeMode);

    /// Handles a batch of queued messages; those of other types are skipped.
    void CheckSensitiveCmd(std::vector<std::shared_ptr<Framework::Message>>& msgs);

    /// Judges one process. @return true when an alarm was handed to SendAlarm
    bool CheckSensitiveCmd(const ProcInfoPtr& info);

    /// Takes all live processes into the view and judges each. @return false: to be tried again
    bool ProcessFullProcessInfo();

    /// Asks the process collector for all live processes.
    /// @param procs  cleared, then filled; the records are the caller's
    /// @return true when the collector gave at least one; a missing collector is logged
    bool GetFullProcessInfo(ProcInfoMap& procs);

    /// Takes a process that started into the view, if it belongs to a tree.
    void UpdateMonitorProcessList(const ProcInfoPtr& info);

    /// Builds the view anew from a snapshot, in ascending pid order.
    void UpdateMonitorProcessList(ProcInfoMap& procs);

    /// Notes the exit of a process of the view. @return true when it was noted
    bool RecordExitProcess(int pid);

    /// Forgets what exited more than 299 seconds ago.
    void ClearExitProcess();

    /// Whether the policy has a rule for this name. The pid is not looked at.
    bool IsMonitorProcess(const std::string& name, int pid);

    /// Whether the process was started inside a tree.
    /// @param monitorProcess  on true the program at the root of the tree
    bool CheckParentProcessIsInMonitorList(const ProcInfoPtr& info, std::string& monitorProcess);

    /// Whether a process of a tree runs what it should not: what the rule says comes before shells,
    /// and shells before the temporary directory.
    /// @param escapeMode  on true "system/fork", "shell" or "forbidden dir"
    bool CheckProcessIsExecSensitiveCmd(const ProcInfoPtr& info, const std::string& monitorProcess,
                                        std::string& escapeMode);

    /// Whether the rule of monitorProcess makes the command sensitive. The policy's answer; false,
    /// and an error line, without a policy.
    bool IsSensitiveCmd(const std::string& monitorProcess, const std::string& processName,
                        const std::string& cmdline, const std::string& exePath);

    /// Whether the command line begins with a system shell or with a shell that a shell starts.
    bool IsShellCmd(const std::string& cmdline);

    /// Whether the command line begins with "/tmp/".
    bool IsExecCmdInTmpDir(const std::string& cmdline);

    /// Reads the lines of /etc/shells, comments and empty ones too.
    void GetSystemShellList();

    /// False when an alarm for the same two processes (names and pids) is in the cache.
    bool IsNeedSendAlarm(const std::string& parentName, int ppid, const std::string& procName,
                         int pid, const std::string& cmdline);

    /// Adds an alarm to the cache; the oldest of 1000 makes room.
    void UpdateAlarmCache(const std::string& parentName, int ppid, const std::string& procName,
                          int pid, const std::string& cmdline);

    /// Removes alarms older than 299 seconds from the cache.
    void CleanWarnedInfo();

protected:
    std::map<int, std::string> m_monitorPidMap;  ///< pid to the program at the root of its tree
    std::map<int, std::int64_t> m_exitPidMap;    ///< pid to its exit, seconds since the epoch
    std::vector<std::string> m_shellList;
    std::vector<CMD_WARN_INFO> m_cmdWarnInfo;           ///< oldest first
    std::map<std::string, std::string> m_procCmdCache;  ///< monitored name to a command line
    Poco::Logger* m_logger;

private:
    template <typename MessageT>
    void SendRegistrations();
    void WaitAndCheck(std::vector<std::shared_ptr<Framework::Message>>& msgs);
    void CleanWhenDue(std::int64_t& periodStart);
    void HandleProcsMessage(const ProcsMessage& message);
    void HandleStart(const ProcInfoPtr& info);
    std::string BuildAlarm(const ProcsMessage::procInfo& info, const std::string& monitorProcess,
                           const std::string& escapeMode) const;
    void ClearCaches();
};

}  // namespace Engine
