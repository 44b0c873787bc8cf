#include "sdk/InnerCpuCtrlUtils.h"

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <string>
#include <utility>

namespace SDK {

namespace {

constexpr long kNanosecondsPerTick = 10000000;  // 1/100 s
constexpr long kNanosecondsPerSecond = 1000000000;

// Short enough that a burst is spread out, long enough that the control itself costs nothing.
constexpr unsigned long kSuggestedRunTick = 10;

// An hour. No loop takes as long; it keeps the arithmetic in range whatever a caller passes.
constexpr unsigned long kLongestWindow = 360000;

std::atomic<int> g_sharePercent{0};

/// Processor time that the calling thread has used, in nanoseconds.
long ThreadCpuTime() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return used.tv_sec * kNanosecondsPerSecond + used.tv_nsec;
}

/// What one thread has used and what rest it still owes for it, in nanoseconds.
struct ThreadAccount {
    long m_cpuBefore = -1;  // processor time at the previous adjustment; negative before the first
    long m_owed = 0;
};

thread_local ThreadAccount g_account;

/// Enters the window since the previous adjustment: at 25 %, a second of work owes three of rest.
/// @return what the thread owes now
long OwedAfter(unsigned long windowTicks, int share) {
    const long cpuTime = ThreadCpuTime();
    const long before = std::exchange(g_account.m_cpuBefore, cpuTime);
    if (share == 0 || before < 0) {
        return g_account.m_owed = 0;
    }
    const long used = cpuTime - before;
    const long window =
        static_cast<long>(std::min(windowTicks, kLongestWindow)) * kNanosecondsPerTick;
    // At most a second of rest counts: a thread that waited for long has saved up no burst.
    const long rest = std::clamp(window - used, 0L, kNanosecondsPerSecond);
    g_account.m_owed = std::max(0L, g_account.m_owed + used / share * (100 - share) - rest);
    return g_account.m_owed;
}

}  // namespace

void InnerCpuCtrlUtils::SetShare(int percent) { g_sharePercent = std::clamp(percent, 0, 100); }

bool InnerCpuCtrlUtils::IsEnabled() { return g_sharePercent != 0; }

unsigned long InnerCpuCtrlUtils::GetSuggestedRunTick() { return kSuggestedRunTick; }

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* taskName,
                                        unsigned long /*nowTick*/, unsigned long usedTick) {
    const int share = g_sharePercent;
    // What is slept now is part of the next window and pays for itself there.
    const long sleep = std::min(OwedAfter(usedTick, share), kNanosecondsPerSecond);
    if (sleep <= 0) {
        return;
    }
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("sdk");
    if (LogEnabled(logger, Poco::Message::PRIO_DEBUG)) {
        WriteLog(logger, Poco::Message::PRIO_DEBUG,
                 Poco::format("Task(%s) is ahead of its share(%d%%), it sleeps %ld ms",
                              std::string(taskName), share, sleep / 1000000),
                 file, line);
    }
    const timespec pause{sleep / kNanosecondsPerSecond, sleep % kNanosecondsPerSecond};
    ::nanosleep(&pause, nullptr);
}

}  // namespace SDK
