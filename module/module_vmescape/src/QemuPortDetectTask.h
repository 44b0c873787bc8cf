#pragma once

#include "framework/Message.h"
#include "framework/Task.h"
#include "net_collect/NetProcsMessage.h"
#include "process_collect/ProcsMessage.h"

#include <Poco/Logger.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Engine {

/// Looks every ten seconds for ports that a virtual machine's process holds open and should not.
///
/// The first watched holder of a socket decides about it; the port of its own VNC display is
/// excused.
///
/// Threads: everything runs on the task's own thread; nothing has a lock.
class QemuPortDetectTask : public Framework::Task {
public:
    /// One alarm that was sent, kept so that it is not sent again.
    struct NET_WARN_INFO {
        std::int32_t pid = 0;
        std::time_t time = 0;  ///< when it was sent, seconds since the epoch
        std::string processName;
        std::string abnormalPort;  ///< as decimal text
    };
    using ProcInfoMap = std::map<int, std::shared_ptr<ProcsMessage::procInfo>>;
    using SocketTable = std::map<long, std::shared_ptr<NetProcsMessage::netProcInfo>>;

    QemuPortDetectTask();
    ~QemuPortDetectTask() override;

    /// Forgets all alarms. @return 0
    int Init() override;
    int UnInit() override;

    /// Examines the sockets every ten seconds until the task is cancelled, which it notices within
    /// a tenth of a second. @return 0
    int Run() override;

    /// Sends the alarm about a port, unless it is a repeat or the process has no name.
    /// @param abnormalPort  as decimal text
    /// @param commandLine   of the process; names the virtual machine
    virtual void SendAlarm(const std::string& processName, int pid, const std::string& abnormalPort,
                           const std::string& commandLine);

    /// Examines every socket of a table, in ascending order of its keys.
    void CheckAbnormalNetPort(SocketTable& table);

    /// The same for messages of a collector that would send sockets as they appear. Nothing calls
    /// it; the sense of its test of the type, which leaves out the messages about sockets, is
    /// known.
    void CheckAbnormalNetPort(std::vector<std::shared_ptr<Framework::Message>>& messages);

    /// Examines one socket by its holders.
    /// @param secondNumber  handed on to the policy, which does not look at it
    /// @return true when an alarm was handed to SendAlarm
    bool CheckProcessAbnormalNetPort(ProcInfoMap& processes, int port, int secondNumber);

    /// Whether the port is that of the VNC display in a command line.
    bool FilterVncPort(const std::string& processName, const std::string& commandLine, int port);

    /// Whether the policy has a rule for this name.
    bool IsMonitorProcess(const std::string& processName);

    /// Whether the rule of a program forbids the port.
    /// @param abnormalPort  on true the port as decimal text
    bool MatchMonitorRule(const std::string& processName, int port, int secondNumber,
                          std::string& abnormalPort);

    /// False when the same alarm is in the cache.
    bool IsNeedSendAlarm(const std::string& processName, int pid, const std::string& abnormalPort);

    /// Adds an alarm to the cache; the oldest of 1000 makes room. The command line is not kept.
    void UpdateAlarmCache(const std::string& processName, int pid, const std::string& abnormalPort,
                          const std::string& commandLine);

    /// Removes alarms older than 299 seconds from the cache.
    void CleanWarnedInfo();

protected:
    std::vector<NET_WARN_INFO> m_netWarnInfo;  ///< oldest first
    Poco::Logger* m_logger;

private:
    void ExamineSockets(SocketTable& table);
    void CleanWhenDue(std::int64_t& lastCleaning);
    void SleepOneCycle();
    std::string BuildAlarm(const std::string& processName, int pid, const std::string& abnormalPort,
                           const std::string& commandLine) const;
};

}  // namespace Engine
