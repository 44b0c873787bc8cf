// Life and run loop.

#include "QemuPortDetectTask.h"

#include "CpuShare.h"
#include "VmEscapeLog.h"
#include "framework/Engine.h"
#include "net_collect/NetProcsFullTask.h"
#include "sdk/TimeUtils.h"

#include <unistd.h>

#include <atomic>

namespace Engine {

namespace {

constexpr const char* kTaskName = "qemu_port_detect_task";
constexpr const char* kFeatureName = "qemu_port_detect_feature";
constexpr unsigned int kInboxCapacity = 1024;

constexpr std::int64_t kCleanPeriodS = 299;  // cleaning is due when more than this has passed

// A cycle is slept in pieces, so that a stop is noticed soon.
constexpr int kSleepPieces = 100;
constexpr useconds_t kSleepPieceUs = 100000;

// One for all instances: the control judges the task class, not the object.
std::atomic<unsigned long> g_lastTick{0};

}  // namespace

QemuPortDetectTask::QemuPortDetectTask()
    : Framework::Task(kTaskName, kFeatureName, Framework::TaskCondition::RESIDENT_TASK,
                      kInboxCapacity),
      m_logger(GetVmEscapeLogger()) {}

QemuPortDetectTask::~QemuPortDetectTask() = default;

int QemuPortDetectTask::Init() {
    SDK::LogInformation(m_logger, "QemuPortDetectTask init start");
    m_netWarnInfo.clear();
    SDK::LogInformation(m_logger, "QemuPortDetectTask init finish");
    return 0;
}

int QemuPortDetectTask::UnInit() {
    SDK::LogInformation(m_logger, "QemuPortDetectTask uninit start");
    m_netWarnInfo.clear();
    Framework::Task::UnInit();
    SDK::LogInformation(m_logger, "QemuPortDetectTask uninit finish");
    return 0;
}

int QemuPortDetectTask::Run() {
    std::int64_t lastCleaning = SDK::TimeUtils::GetCurrentTimestampS();
    while (state() != TASK_CANCELLING) {
        KeepCpuShare(g_lastTick, __FILE__, __LINE__, kTaskName);
        // Kept until the cycle has ended, as the processes in it are shared.
        SocketTable table;
        ExamineSockets(table);
        CleanWhenDue(lastCleaning);
        SleepOneCycle();
    }
    m_netWarnInfo.clear();
    return 0;
}

void QemuPortDetectTask::ExamineSockets(SocketTable& table) {
    // Looked up each time: the collector may come and go.
    Framework::Engine* engine = Framework::Engine::Current();
    Framework::Task* task = engine == nullptr ? nullptr : engine->FindTask("netproc_full_task");
    auto* collector = dynamic_cast<NetProcsFullTask*>(task);
    if (collector == nullptr) {
        return;
    }
    collector->GetNetCacheMap(table);
    CheckAbnormalNetPort(table);
}

void QemuPortDetectTask::CleanWhenDue(std::int64_t& lastCleaning) {
    const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
    if (now - lastCleaning > kCleanPeriodS) {
        CleanWarnedInfo();
        lastCleaning = now;
    }
}

void QemuPortDetectTask::SleepOneCycle() {
    for (int i = 0; i < kSleepPieces; ++i) {
        ::usleep(kSleepPieceUs);
        if (state() == TASK_CANCELLING) {
            return;
        }
    }
}

}  // namespace Engine
