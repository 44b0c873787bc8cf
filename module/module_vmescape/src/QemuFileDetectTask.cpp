// Life, run loop, and the watches that follow the policy.

#include "QemuFileDetectTask.h"

#include "CpuShare.h"
#include "QemuFileDetectPolicy.h"
#include "VmEscapeLog.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "sdk/TimeUtils.h"

#include <atomic>

namespace Engine {

namespace {

constexpr const char* kTaskName = "qemu_file_detect_task";
constexpr const char* kFeatureName = "qemu_file_detect_feature";
constexpr const char* kNotifier = "filenotify_task";
constexpr unsigned int kInboxCapacity = 1024;

constexpr int kWaitMs = 1000;  // also how soon a change of the policy is seen at the latest
constexpr int kBatch = 128;
constexpr std::int64_t kHousekeepingS = 300;  // due when this much has passed

constexpr const char* kAdd = "add";
constexpr const char* kDelete = "delete";

// One for all instances: the control judges the task class, not the object.
std::atomic<unsigned long> g_lastTick{0};

}  // namespace

QemuFileDetectTask::QemuFileDetectTask()
    : Framework::Task(kTaskName, kFeatureName, Framework::TaskCondition::RESIDENT_TASK,
                      kInboxCapacity),
      m_logger(GetVmEscapeLogger()) {}

QemuFileDetectTask::~QemuFileDetectTask() = default;

int QemuFileDetectTask::Init() {
    SDK::LogInformation(m_logger, "QemuFileDetectTask init start");
    m_watchedDirs.clear();
    ForgetProcessesAndAlarms();
    RegisterFileMonitorMessage();
    SDK::LogInformation(m_logger, "QemuFileDetectTask init finish");
    return 0;
}

int QemuFileDetectTask::UnInit() {
    SDK::LogInformation(m_logger, "QemuFileDetectTask uninit start");
    UnregisterFileMonitorMessage();
    m_watchedDirs.clear();
    ForgetProcessesAndAlarms();
    Framework::Task::UnInit();
    SDK::LogInformation(m_logger, "QemuFileDetectTask uninit finish");
    return 0;
}

int QemuFileDetectTask::Run() {
    std::int64_t lastHousekeeping = SDK::TimeUtils::GetCurrentTimestampS();
    bool firstPass = true;
    std::vector<std::shared_ptr<Framework::Message>> messages;
    while (state() != TASK_CANCELLING) {
        KeepShare();
        const bool changed = RegisterFileMonitorMessage();
        if ((changed || firstPass) && ProcessFullProcessInfo()) {
            firstPass = false;
        }
        CheckEvents(messages);
        const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
        if (now - lastHousekeeping >= kHousekeepingS) {
            CleanWarnedInfo();
            ProcessFullProcessInfo();
            lastHousekeeping = now;
        }
    }
    ForgetProcessesAndAlarms();
    return 0;
}

void QemuFileDetectTask::CheckEvents(std::vector<std::shared_ptr<Framework::Message>>& messages) {
    if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, kBatch) == -1) {
        messages.clear();
        BulkRecvMsg(messages, kBatch);
        CheckSensitiveFile(messages);
    }
}

bool QemuFileDetectTask::RegisterFileMonitorMessage() {
    DirChanges changes;
    if (!UpdateMonitorDirChanges(changes)) {
        return false;
    }
    for (const auto& [path, word] : changes) {
        SendFileNotifyWatchMessage(path, word);
    }
    return !changes.empty();
}

bool QemuFileDetectTask::UnregisterFileMonitorMessage() {
    bool sent = true;
    for (const std::string& path : m_watchedDirs) {
        sent = SendFileNotifyWatchMessage(path, kDelete) && sent;
    }
    return sent;
}

bool QemuFileDetectTask::UpdateMonitorDirChanges(DirChanges& changes) {
    const auto policy = GetDetectPolicy<QemuFileDetectPolicy>(
        *this, m_logger,
        "m_featurePolicy is null pointer in QemuFileDetectTask::UpdateMonitorDirChange");
    if (policy == nullptr) {
        return false;
    }
    std::set<std::string> dirs;
    policy->GetMonitorDirs(dirs);
    GetChangedMonitorDirs(dirs, changes);
    m_watchedDirs.swap(dirs);
    return true;
}

bool QemuFileDetectTask::GetChangedMonitorDirs(const std::set<std::string>& newDirs,
                                               DirChanges& changes) {
    for (const std::string& dir : newDirs) {
        if (m_watchedDirs.count(dir) == 0) {
            changes[dir] = kAdd;
        }
    }
    for (const std::string& dir : m_watchedDirs) {
        if (newDirs.count(dir) == 0) {
            changes[dir] = kDelete;
        }
    }
    return true;
}

bool QemuFileDetectTask::SendFileNotifyWatchMessage(const std::string& path,
                                                    const std::string& word) {
    const std::vector<unsigned int> masks{FileNotifyWatchMessage::ALL_ACCESS};
    _FileNotifyOpt options;
    options.m_recursive = true;
    const bool add = word == kAdd;
    (add ? options.m_add : options.m_remove) = true;
    const int result =
        SendDirectMsg(kNotifier, new FileNotifyWatchMessage(this, path, masks, options));
    if (add) {
        SDK::LogInformation(
            m_logger, "QemuFileDetectTask add file(path:%s) monitoring to filenotify_task ", path);
    } else {
        SDK::LogInformation(
            m_logger, "QemuFileDetectTask remove file(path:%s) monitoring to filenotify_task ",
            path);
    }
    return result == 0;
}

void QemuFileDetectTask::KeepShare(const char* file, int line) {
    KeepCpuShare(g_lastTick, file, line, kTaskName);
}

void QemuFileDetectTask::ForgetProcessesAndAlarms() {
    m_monitorPidMap.clear();
    m_monitorCmdlineMap.clear();
    m_fileWarnInfo.clear();
}

}  // namespace Engine
