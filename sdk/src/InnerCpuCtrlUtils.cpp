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

std::atomic<int> g_sharePercent{0};

/// Processor time that the calling thread has used, in nanoseconds.
long ThreadCpuTime() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return used.tv_sec * kNanosecondsPerSecond + used.tv_nsec;
}

// What the thread had used at its previous adjustment; negative before the first.
thread_local long g_cpuTimeBefore = -1;

}  // namespace

void InnerCpuCtrlUtils::SetShare(int percent) { g_sharePercent = std::clamp(percent, 0, 100); }

bool InnerCpuCtrlUtils::IsEnabled() { return g_sharePercent != 0; }

unsigned long InnerCpuCtrlUtils::GetSuggestedRunTick() { return kSuggestedRunTick; }

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* taskName,
                                        unsigned long /*nowTick*/, unsigned long usedTick) {
    const int share = g_sharePercent;
    const long used = ThreadCpuTime();
    const long before = std::exchange(g_cpuTimeBefore, used);
    if (share == 0 || before < 0) {
        return;
    }
    // The window is brought to a second: a thread that slept for long has saved up no burst.
    const long window =
        static_cast<long>(std::min<unsigned long>(usedTick, 100)) * kNanosecondsPerTick;
    const long neededWindow = (used - before) / share * 100;
    const long sleep = std::min(neededWindow - window, kNanosecondsPerSecond);
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
