#include "support/ScriptedTasks.h"

#include "sdk/JsonUtils.h"

namespace TestSupport {

namespace {

constexpr auto kResident = Framework::TaskCondition::RESIDENT_TASK;
constexpr unsigned int kInbox = 64;

}  // namespace

ProcInfoPtr Process(int pid, const std::string& name, const std::string& cmdline, int ppid,
                    const std::string& parentName, const std::string& exePath) {
    auto info = std::make_shared<ProcInfo>();
    info->m_pid = pid;
    info->m_ppid = ppid;
    info->m_name = name;
    info->m_cmdline = cmdline;
    info->m_parentName = parentName;
    info->m_exePath = exePath;
    return info;
}

std::shared_ptr<Framework::Message> Event(unsigned int flag, int pid, ProcInfoPtr info) {
    return std::make_shared<Engine::ProcsMessage>(flag, pid, std::move(info));
}

std::shared_ptr<Framework::Message> Started(const ProcInfoPtr& info) {
    return Event(Engine::ProcsMessage::EXEC, info->m_pid, info);
}

std::shared_ptr<Framework::Message> Exited(int pid) {
    return Event(Engine::ProcsMessage::EXIT, pid, nullptr);
}

ScriptedFullTask::ScriptedFullTask()
    : Engine::ProcsFullTask("procs_full_task", "", kResident, kInbox) {}

void ScriptedFullTask::GetProcsMap(std::map<int, ProcInfoPtr>& procs) {
    const SDK::LockGuard lock(m_mutex);
    for (const auto& [pid, info] : m_procs) {
        procs[pid] = info == nullptr ? nullptr : std::make_shared<ProcInfo>(*info);
    }
}

void ScriptedFullTask::Add(const ProcInfoPtr& info) {
    const SDK::LockGuard lock(m_mutex);
    m_procs[info->m_pid] = info;
}

ScriptedRealTask::ScriptedRealTask() : Framework::Task("procs_real_task", "", kResident, kInbox) {}

int ScriptedRealTask::InterceptMsg(std::shared_ptr<Framework::Message>& message) {
    const auto* request = dynamic_cast<const Engine::ProcsSubscription*>(message.get());
    if (request != nullptr) {
        const SDK::LockGuard lock(m_mutex);
        m_requests.emplace_back(request->GetMsgType(), request->GetType());
    }
    return 1;
}

std::vector<std::pair<std::string, unsigned int>> ScriptedRealTask::Requests() {
    const SDK::LockGuard lock(m_mutex);
    return m_requests;
}

RecordingReporter::RecordingReporter()
    : Framework::Task("data_comm_report_task", "", kResident, kInbox) {}

int RecordingReporter::InterceptMsg(std::shared_ptr<Framework::Message>& message) {
    const auto* data = dynamic_cast<const Framework::DataMessage*>(message.get());
    if (data != nullptr && data->GetDataType() == "2") {
        const SDK::LockGuard lock(m_mutex);
        m_texts.push_back(data->GetData());
    }
    return 1;
}

std::vector<Json::Value> RecordingReporter::Alarms() {
    std::vector<Json::Value> alarms;
    for (const std::string& text : Texts()) {
        Json::Value alarm;
        SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), alarm);
        alarms.push_back(alarm);
    }
    return alarms;
}

std::vector<std::string> RecordingReporter::Texts() {
    const SDK::LockGuard lock(m_mutex);
    return m_texts;
}

std::size_t RecordingReporter::Count() {
    const SDK::LockGuard lock(m_mutex);
    return m_texts.size();
}

ScriptedAgent::ScriptedAgent()
    : m_engine(new Framework::Engine),
      m_full(new ScriptedFullTask),
      m_real(new ScriptedRealTask),
      m_reporter(new RecordingReporter) {
    m_engine->RegisterTask(m_full, true);
    m_engine->RegisterTask(m_real, true);
    m_engine->RegisterTask(m_reporter, true);
}

ScriptedAgent::~ScriptedAgent() {
    m_engine->UnRegisterTask("data_comm_report_task");
    m_engine->UnRegisterTask("procs_real_task");
    m_engine->UnRegisterTask("procs_full_task");
}

std::string CommandPolicy(const std::vector<std::string>& rules, bool enabled,
                          const std::string& hash) {
    std::string list;
    for (const std::string& rule : rules) {
        list += (list.empty() ? "" : ",") + rule;
    }
    return R"({"module_name":"vmescape_module","enabled":)" +
           std::string(enabled ? "true" : "false") + R"(,"hash":")" + hash +
           R"(","content":{"monitor_list":[)" + list + "]}}";
}

}  // namespace TestSupport
