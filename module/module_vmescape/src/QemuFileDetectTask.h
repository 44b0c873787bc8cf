#pragma once

#include "filenotify/FileNotifyMessage.h"
#include "framework/AbstractMessageReceiver.h"
#include "framework/Message.h"
#include "framework/Task.h"
#include "process_collect/ProcsMessage.h"

#include <Poco/Logger.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Engine {

/// Watches the sensitive directories of the host for files that a virtual machine's process, or
/// something it started, should not touch.
///
/// The directories are the policy's; the file notifier is told of every change. An event names only
/// a process: whether that belongs to a virtual machine is found in the list of all processes, or
/// by going up from it to its ancestors.
///
/// Threads: everything runs on the task's own thread; nothing has a lock. FileNotifyMessageAction
/// would run on a notifier's thread; a notifier that used it would have to keep off while Run runs.
/// The notifier of this agent sends messages instead.
class QemuFileDetectTask : public Framework::Task, public AbstractMessageReceiver {
public:
    /// One alarm that was sent, kept so that it is not sent again.
    struct FILE_WARN_INFO {
        std::int32_t pid = 0;
        std::time_t time = 0;  ///< when it was sent, seconds since the epoch
        std::string processName;
        std::string filePath;
        std::string fileAction;
    };
    using ProcInfoPtr = std::shared_ptr<ProcsMessage::procInfo>;
    using ProcInfoMap = std::map<int, ProcInfoPtr>;

    /// Directories to "add" or to "delete".
    using DirChanges = std::map<std::string, std::string>;

    QemuFileDetectTask();
    ~QemuFileDetectTask() override;

    /// Forgets everything, then asks for the watches of the policy. @return 0
    int Init() override;

    /// Takes the watches back and forgets everything. @return 0
    int UnInit() override;

    /// Keeps watches and processes fresh and judges file events until the task is cancelled.
    /// @return 0
    int Run() override;

    /// One file event by direct call. @return 0 when it came as far as the alarm, else -1
    int FileNotifyMessageAction(FileNotifyMessage* message) override;

    /// Sends the alarm about an access, unless it is a repeat or the process has no name.
    /// @param monitorProcess  the virtualization program whose rule was broken
    /// @param processName     the process that touched the file
    /// @param fileAction      as GetFileAction names it
    virtual void SendAlarm(const std::string& monitorProcess, const std::string& processName,
                           int pid, const std::string& filePath, const std::string& fileAction);

    /// Asks the notifier for what changed since the last call. @return true when something had
    bool RegisterFileMonitorMessage();

    /// Takes back every watch. @return true when each request was handed over
    bool UnregisterFileMonitorMessage();

    /// Compares the policy's directories with those watched, which become the policy's.
    /// @return false, and nothing changes, without a policy (logged) or with a foreign one
    bool UpdateMonitorDirChanges(DirChanges& changes);

    /// Enters what is new in newDirs as "add" and what is watched but not in it as "delete".
    /// @return true
    bool GetChangedMonitorDirs(const std::set<std::string>& newDirs, DirChanges& changes);

    /// Asks the notifier to start ("add") or to stop (any other word) watching a directory.
    /// @return true when the request was handed over
    bool SendFileNotifyWatchMessage(const std::string& path, const std::string& word);

    /// Takes the monitored processes from the collector's list. @return false: to be tried again
    bool ProcessFullProcessInfo();

    /// Replaces all that is known of processes by those of the list that are monitored.
    void UpdateMonitorProcessList(ProcInfoMap& procs);

    /// Whether the process itself is monitored.
    /// @param name  its name, on false too when it is known; on true the monitored one
    /// @param ppid  its parent; not touched when the answer was known before
    bool CheckProcessIsInMonitorList(int pid, std::string& name, int& ppid);

    /// Whether a process or an ancestor of it is monitored. The way up ends at a shell and below
    /// init: who works in a shell works for somebody else.
    /// @param ppid         where the way begins
    /// @param monitorName  on true the monitored name
    bool CheckParentProcessIsInMonitorList(int ppid, std::string& monitorName);

    /// Judges a batch of queued messages; those of other types are logged and skipped.
    void CheckSensitiveFile(std::vector<std::shared_ptr<Framework::Message>>& messages);

    /// Judges one access. @return true when it was handed to SendAlarm
    bool CheckProcessAccessSensitiveFile(int pid, const std::string& filePath, int mask);

    /// Whether an access need not be looked at: no regular file any more, or one that every QEMU
    /// reads.
    bool QuickFilterFile(std::string filePath);

    /// Whether the policy has a rule for this name.
    bool IsMonitorProcess(const std::string& processName);

    /// Whether the rule of monitorProcess forbids the file. False, and an error line, without a
    /// policy.
    bool IsSenstiveFileAccess(const std::string& monitorProcess, const std::string& filePath);

    /// Names what was done: "access", "open", "modify" or "close", the first that applies, or
    /// "unkonw".
    /// @param mask  bits of FileNotifyMessage::Event
    void GetFileAction(unsigned int mask, std::string& action);

    /// False when the same alarm is in the cache.
    bool IsNeedSendAlarm(const std::string& processName, int pid, const std::string& filePath,
                         const std::string& fileAction);

    /// Adds an alarm to the cache; the oldest of 1000 makes room.
    void UpdateAlarmCache(const std::string& processName, int pid, const std::string& filePath,
                          const std::string& fileAction);

    /// Removes alarms of 300 seconds and more from the cache.
    void CleanWarnedInfo();

protected:
    std::map<int, std::string> m_monitorPidMap;  ///< pid to the monitored name it belongs to
    std::map<std::string, std::string> m_monitorCmdlineMap;  ///< monitored name to a command line
    std::set<std::string> m_watchedDirs;
    std::vector<FILE_WARN_INFO> m_fileWarnInfo;  ///< oldest first
    Poco::Logger* m_logger;

private:
    static void KeepShare(const char* file = __builtin_FILE(), int line = __builtin_LINE());
    void CheckEvents(std::vector<std::shared_ptr<Framework::Message>>& messages);
    bool CheckEvent(const FileNotifyMessage& message);
    bool FindMonitoredAncestor(int pid, int& ancestor, std::string& name);
    std::string KeepCmdline(int pid, const std::string& name);
    std::string BuildAlarm(const std::string& monitorProcess, const std::string& processName,
                           int pid, const std::string& filePath,
                           const std::string& fileAction) const;
    void ForgetProcessesAndAlarms();
};

}  // namespace Engine
