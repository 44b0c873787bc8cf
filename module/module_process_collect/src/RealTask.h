#pragma once

#include "framework/Task.h"

#include <memory>

namespace ProcessCollect {

class ProcessCollector;

/// "procs_real_task": waits for process events and sends them to the tasks that registered.
///
/// A registration takes effect before the call that sends it returns, so a task that registers and
/// then takes a snapshot misses nothing in between.
///
/// Threads: see Framework::Task. Ownership: shares the collector.
class RealTask : public Framework::Task {
public:
    static constexpr const char* NAME = "procs_real_task";

    explicit RealTask(std::shared_ptr<ProcessCollector> collector);

    /// @return 0; -1 when the source's events cannot be waited for
    int Init() override;
    int UnInit() override;
    int Run() override;
    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override;
    int HandleMsg(const Framework::Message* message) override;

private:
    bool HandleSubscription(const Framework::Message& message);

    const std::shared_ptr<ProcessCollector> m_collector;
};

}  // namespace ProcessCollect
