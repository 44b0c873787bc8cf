#pragma once

#include "framework/Task.h"

namespace Engine {

/// The task of the port detection, which this version does not have yet: it waits until it is
/// stopped. No policy is accepted that would start it.
class QemuPortDetectTask : public Framework::Task {
public:
    QemuPortDetectTask();
    ~QemuPortDetectTask() override;

    /// @return 0 once the task is cancelled
    int Run() override;
};

}  // namespace Engine
