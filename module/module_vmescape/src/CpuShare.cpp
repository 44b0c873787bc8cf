#include "CpuShare.h"

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

void KeepCpuShare(std::atomic<unsigned long>& lastTick, const char* file, int line,
                  const char* taskName) {
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) {
        return;
    }
    const unsigned long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const unsigned long last = lastTick.load(std::memory_order_relaxed);
    const unsigned long difference = now > last ? now - last : last - now;
    if (difference > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        SDK::InnerCpuCtrlUtils::AdjustThreadCpu(file, line, taskName, now, difference);
        lastTick.store(now, std::memory_order_relaxed);
    }
}

}  // namespace Engine
