// Life, run loop and the two ways in for process events.

#include "QemuCmdDetectTask.h"

#include "CpuShare.h"
#include "FullProcessList.h"
#include "VmEscapeLog.h"
#include "process_collect/ProcsRegistMessage.h"
#include "sdk/TimeUtils.h"

#include <atomic>
#include <utility>

namespace Engine {

namespace {

constexpr const char* kTaskName = "qemu_cmd_detect_task";
constexpr const char* kFeatureName = "qemu_cmd_detect_feature";
constexpr unsigned int kInboxCapacity = 4096;

constexpr int kWaitMs = 1000;  // also how soon a stop is noticed at the latest
constexpr int kBatch = 128;
constexpr std::int64_t kCleanPeriodS = 299;  // cleaning is due when more than this has passed

// What the processor control is told about the place of the call.
constexpr int kCpuControlLine = 46;

// One for all instances: the control judges the task class, not the object.
std::atomic<unsigned long> g_lastTick{0};

}  // namespace

QemuCmdDetectTask::QemuCmdDetectTask()
    : Framework::Task(kTaskName, kFeatureName, Framework::TaskCondition::RESIDENT_TASK,
                      kInboxCapacity),
      m_logger(GetVmEscapeLogger()) {}

QemuCmdDetectTask::~QemuCmdDetectTask() = default;

int QemuCmdDetectTask::Init() {
    SDK::LogInformation(m_logger, "QemuCmdDetectTask init start");
    SendRegistrations<ProcsRegistMessage>();
    SDK::LogInformation(m_logger, "QemuCmdDetectTask init finish");
    return 0;
}

int QemuCmdDetectTask::UnInit() {
    SDK::LogInformation(m_logger, "QemuCmdDetectTask uninit start");
    ClearCaches();
    SendRegistrations<ProcsUnRegistMessage>();
    Framework::Task::UnInit();
    SDK::LogInformation(m_logger, "QemuCmdDetectTask uninit finish");
    return 0;
}

int QemuCmdDetectTask::Run() {
    bool needFullRefresh = true;
    std::int64_t periodStart = 0;
    std::vector<std::shared_ptr<Framework::Message>> msgs;
    while (state() != TASK_CANCELLING) {
        KeepCpuShare(g_lastTick, __FILE__, kCpuControlLine, kTaskName);
        if (needFullRefresh) {
            periodStart = SDK::TimeUtils::GetCurrentTimestampS();
            GetSystemShellList();
            needFullRefresh = !ProcessFullProcessInfo();
            continue;
        }
        WaitAndCheck(msgs);
        CleanWhenDue(periodStart);
    }
    ClearCaches();
    return 0;
}

void QemuCmdDetectTask::WaitAndCheck(std::vector<std::shared_ptr<Framework::Message>>& msgs) {
    if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, kBatch) == -1) {
        msgs.clear();
        BulkRecvMsg(msgs, kBatch);
        CheckSensitiveCmd(msgs);
    }
}

void QemuCmdDetectTask::CleanWhenDue(std::int64_t& periodStart) {
    const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
    if (now - periodStart > kCleanPeriodS) {
        CleanWarnedInfo();
        ClearExitProcess();
        periodStart = now;
    }
}

bool QemuCmdDetectTask::ProcessFullProcessInfo() {
    ProcInfoMap procs;
    if (!GetFullProcessInfo(procs)) {
        return false;
    }
    UpdateMonitorProcessList(procs);
    for (const auto& [pid, info] : procs) {
        CheckSensitiveCmd(info);
    }
    return true;
}

bool QemuCmdDetectTask::GetFullProcessInfo(ProcInfoMap& procs) {
    return GetFullProcessList(m_logger, procs);
}

void QemuCmdDetectTask::CheckSensitiveCmd(std::vector<std::shared_ptr<Framework::Message>>& msgs) {
    SDK::LogDebug(m_logger, "MsgVector size is %lu in CheckSensitiveCmd", msgs.size());
    for (const std::shared_ptr<Framework::Message>& message : msgs) {
        if (message == nullptr || message->GetMsgType() != "procs_message") {
            continue;
        }
        const auto* procsMessage = dynamic_cast<const ProcsMessage*>(message.get());
        if (procsMessage == nullptr) {
            SDK::LogError(m_logger, "MsgData is null ptr in CheckSensitiveCmd");
            continue;
        }
        HandleProcsMessage(*procsMessage);
    }
}

void QemuCmdDetectTask::HandleProcsMessage(const ProcsMessage& message) {
    const unsigned int flag = message.GetProcFlag();
    ProcInfoPtr info;
    message.GetProcInfo(info);
    if (flag == ProcsMessage::FORK || flag == ProcsMessage::EXEC) {
        if (info != nullptr) {
            SDK::LogDebug(m_logger, "Process(pid:%d, name:%s, ppid:%d) has created",
                          message.GetProcPid(), info->m_name, info->m_ppid);
        }
        HandleStart(info);
    } else if (flag == ProcsMessage::EXIT) {
        SDK::LogDebug(m_logger, "Process(%d) has exited", message.GetProcPid());
        RecordExitProcess(message.GetProcPid());
    }
}

void QemuCmdDetectTask::HandleStart(const ProcInfoPtr& info) {
    UpdateMonitorProcessList(info);
    CheckSensitiveCmd(info);
}

void QemuCmdDetectTask::ProcsMessageAction(int pid, unsigned int flag,
                                           std::shared_ptr<ProcsMessage::procInfo> info) {
    SDK::LogDebug(m_logger, "Recv Process(pid %d, flag 0x%x)", pid, flag);
    if ((flag == ProcsMessage::FORK || flag == ProcsMessage::EXEC) && info != nullptr) {
        SDK::LogDebug(m_logger, "Process(pid:%d, name:%s, cmd:%s, ppid:%d) has created", pid,
                      info->m_name, info->m_cmdline, info->m_ppid);
        HandleStart(info);
    } else if (flag == ProcsMessage::EXIT) {
        SDK::LogDebug(m_logger, "Process(%d) has exited", pid);
        RecordExitProcess(pid);
    }
}

template <typename MessageT>
void QemuCmdDetectTask::SendRegistrations() {
    for (const unsigned int type : {ProcsMessage::FORK, ProcsMessage::EXEC, ProcsMessage::EXIT}) {
        SendDirectMsg("procs_real_task", new MessageT(type, this));
    }
}

void QemuCmdDetectTask::ClearCaches() {
    m_monitorPidMap.clear();
    m_exitPidMap.clear();
    m_shellList.clear();
    m_cmdWarnInfo.clear();
    m_procCmdCache.clear();
}

}  // namespace Engine
