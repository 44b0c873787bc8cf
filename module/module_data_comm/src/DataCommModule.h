#pragma once

#include "framework/Module.h"

#include <Poco/AutoPtr.h>

namespace Engine {

class ReportTask;

/// The reporter: takes alarms from all tasks to wherever the operator wants them, which the
/// application's configuration tells when the module starts (see OutputFactory).
class DataCommModule : public Framework::Module {
public:
    DataCommModule();
    ~DataCommModule() override;

    /// Opens the outputs and registers the report task. @return 0, or -1 when an output cannot be
    /// had
    int Init() override;

    /// Writes what is still waiting and stops. @return 0
    int UnInit() override;

private:
    Poco::AutoPtr<ReportTask> m_task;
};

}  // namespace Engine
