#pragma once

#include "framework/Module.h"

#include <Poco/AutoPtr.h>

namespace Engine {

class ReportTask;

/// The reporter: takes alarms from all tasks to wherever the operator wants them.
///
/// Settings, read from the application's configuration when the module starts:
///   report.output  "stdout" (default) or "file:PATH", or several with commas between; each may
///                  name its own format before it: "text:stdout,json:file:PATH"
///   report.format  "text", "json", or "auto" (default): text on a terminal, JSON elsewhere
///   report.color   "always", "never", or "auto" (default): on a terminal
///   report.webhook.*  the server of the output "webhook", see WebhookWriter
///   report.queue   documents that may wait for each output (default 8192)
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
