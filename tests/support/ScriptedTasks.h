#pragma once

#include "framework/Engine.h"
#include "framework/Task.h"
#include "process_collect/ProcsFullTask.h"
#include "process_collect/ProcsMessage.h"
#include "process_collect/ProcsRegistMessage.h"
#include "sdk/Mutex.h"

#include <Poco/AutoPtr.h>
#include <json/value.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

using ProcInfo = Engine::ProcsMessage::procInfo;
using ProcInfoPtr = std::shared_ptr<ProcInfo>;

/// A process as a test describes it.
ProcInfoPtr Process(int pid, const std::string& name, const std::string& cmdline, int ppid = 1,
                    const std::string& parentName = "init", const std::string& exePath = "");

/// A process event.
std::shared_ptr<Framework::Message> Event(unsigned int flag, int pid, ProcInfoPtr info);
std::shared_ptr<Framework::Message> Started(const ProcInfoPtr& info);
std::shared_ptr<Framework::Message> Exited(int pid);

/// Stands under "procs_full_task" and gives the processes that the test put in.
class ScriptedFullTask : public Engine::ProcsFullTask {
public:
    ScriptedFullTask();
    ~ScriptedFullTask() override = default;
    void GetProcsMap(std::map<int, ProcInfoPtr>& procs) override;
    void Add(const ProcInfoPtr& info);

private:
    SDK::Mutex m_mutex;
    std::map<int, ProcInfoPtr> m_procs SDK_GUARDED_BY(m_mutex);
};

/// Stands under "procs_real_task" and notes who registers for what.
class ScriptedRealTask : public Framework::Task {
public:
    ScriptedRealTask();
    ~ScriptedRealTask() override = default;
    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override;

    /// Registrations and their ends in order: ("procs_regist", 1) ...
    std::vector<std::pair<std::string, unsigned int>> Requests();

private:
    SDK::Mutex m_mutex;
    std::vector<std::pair<std::string, unsigned int>> m_requests SDK_GUARDED_BY(m_mutex);
};

/// Stands under "data_comm_report_task" and keeps the alarms.
class RecordingReporter : public Framework::Task {
public:
    RecordingReporter();
    ~RecordingReporter() override = default;
    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override;

    /// The alarms so far, parsed, in order.
    std::vector<Json::Value> Alarms();
    std::vector<std::string> Texts();
    std::size_t Count();

private:
    SDK::Mutex m_mutex;
    std::vector<std::string> m_texts SDK_GUARDED_BY(m_mutex);
};

/// An engine with the three scripted tasks registered. Everything is unregistered at its end.
class ScriptedAgent {
public:
    ScriptedAgent();
    ~ScriptedAgent();
    ScriptedAgent(const ScriptedAgent&) = delete;
    ScriptedAgent& operator=(const ScriptedAgent&) = delete;

    Framework::Engine& Engine() { return *m_engine; }
    ScriptedFullTask& Full() { return *m_full; }
    ScriptedRealTask& Real() { return *m_real; }
    RecordingReporter& Reporter() { return *m_reporter; }

private:
    Poco::AutoPtr<Framework::Engine> m_engine;
    Poco::AutoPtr<ScriptedFullTask> m_full;
    Poco::AutoPtr<ScriptedRealTask> m_real;
    Poco::AutoPtr<RecordingReporter> m_reporter;
};

/// A command policy text: each rule is JSON text of one element of the monitor list.
std::string CommandPolicy(const std::vector<std::string>& rules, bool enabled = true,
                          const std::string& hash = "");

}  // namespace TestSupport
