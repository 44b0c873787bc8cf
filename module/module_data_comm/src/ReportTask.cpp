#include "ReportTask.h"

#include "DataCommLog.h"
#include "sdk/JsonUtils.h"

#include <functional>
#include <utility>

namespace Engine {

namespace {

constexpr unsigned int kInboxCapacity = 8192;
constexpr int kWaitMs = 60000;  // a stop wakes the task, and so does every message
constexpr int kBatch = 128;

constexpr const char* kNoClass = "other";
constexpr std::size_t kMaxClasses = 16;

// More than a host carries; what one name costs is some 32 bytes.
constexpr std::size_t kMaxMachines = 4096;

}  // namespace

ReportTask::ReportTask()
    : Framework::Task("data_comm_report_task", "", Framework::TaskCondition::RESIDENT_TASK,
                      kInboxCapacity) {}

ReportTask::~ReportTask() = default;

void ReportTask::AddSink(std::unique_ptr<AlarmSink> sink) { m_sinks.push_back(std::move(sink)); }

int ReportTask::Run() {
    while (state() != TASK_CANCELLING) {
        if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, kBatch) == -1) {
            HandleQueuedMsgs(kBatch);
        }
    }
    return 0;
}

int ReportTask::UnInit() {
    // Who sent before the stop is still heard, even when the stop came before the thread got to
    // Run.
    while (HandleQueuedMsgs(kBatch) > 0) {
    }
    // All at once, so that the time that each has is not added up.
    for (const std::unique_ptr<AlarmSink>& sink : m_sinks) {
        sink->BeginStop();
    }
    for (const std::unique_ptr<AlarmSink>& sink : m_sinks) {
        sink->Stop();
    }
    return Framework::Task::UnInit();
}

int ReportTask::HandleMsg(const Framework::Message* message) {
    const auto* data = dynamic_cast<const Framework::DataMessage*>(message);
    if (data != nullptr && data->GetDataType() == Framework::DataMessage::REOPEN) {
        for (const std::unique_ptr<AlarmSink>& sink : m_sinks) {
            sink->Reopen();
        }
        return 0;
    }
    if (data == nullptr || data->GetDataType() != Framework::DataMessage::ALARM) {
        SDK::LogWarning(GetDataCommLogger(), "A message(type:%s) is no alarm and is dropped",
                        message == nullptr ? std::string() : message->GetMsgType());
        return -1;
    }
    CountAlarm(data->GetData());
    for (const std::unique_ptr<AlarmSink>& sink : m_sinks) {
        sink->Offer(data->GetData());
    }
    return 0;
}

void ReportTask::CountAlarm(const std::string& document) {
    Json::Value alarm;
    Json::Value resource;
    SDK::JsonUtils::ParseJsonStr(document.c_str(), document.length(), alarm);
    SDK::JsonUtils::GetSubobjectValue(alarm, "resource_info", resource);
    const std::string kind = SDK::JsonUtils::GetStringValue(alarm, "event_classid", kNoClass);
    bool more = false;
    {
        const SDK::LockGuard lock(m_mutex);
        // The classes are the detection's; a document that is none of its must not fill the memory.
        const bool known = m_classes.size() < kMaxClasses || m_classes.count(kind) > 0;
        Detections& detections = m_classes[known ? kind : kNoClass];
        ++detections.m_alarms;
        more = CountMachine(detections, SDK::JsonUtils::GetStringValue(resource, "vm_name", ""));
    }
    if (more) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Alarms of class(%s) have named %lu virtual machines, the limit. Further "
                        "ones are not counted as machines.",
                        kind, static_cast<unsigned long>(kMaxMachines));
    }
}

/// @return whether this is the first machine too many
bool ReportTask::CountMachine(Detections& detections, const std::string& machine) {
    const std::size_t hash = std::hash<std::string>()(machine);
    if (machine.empty() || detections.m_machineHashes.count(hash) > 0) {
        return false;
    }
    if (detections.m_machineHashes.size() < kMaxMachines) {
        detections.m_machineHashes.insert(hash);
        return false;
    }
    return !std::exchange(detections.m_moreMachines, true);
}

SDK::Ledger ReportTask::GetLedger() const {
    const SDK::LockGuard lock(m_mutex);
    SDK::Ledger books;
    books.m_name = "detections";
    for (const auto& [kind, detections] : m_classes) {
        books.m_kinds[kind] = detections.m_alarms;
        books.m_machines[kind] = detections.m_machineHashes.size();
        books.m_seen += detections.m_alarms;
    }
    books.m_delivered = books.m_seen;
    return books;
}

}  // namespace Engine
