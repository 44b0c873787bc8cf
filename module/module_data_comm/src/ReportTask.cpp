#include "ReportTask.h"

#include "DataCommLog.h"

#include <utility>

namespace Engine {

namespace {

constexpr unsigned int kInboxCapacity = 8192;
constexpr int kWaitMs = 60000;  // a stop wakes the task, and so does every message
constexpr int kBatch = 128;

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
    for (const std::unique_ptr<AlarmSink>& sink : m_sinks) {
        sink->Stop();
    }
    return Framework::Task::UnInit();
}

int ReportTask::HandleMsg(const Framework::Message* message) {
    const auto* data = dynamic_cast<const Framework::DataMessage*>(message);
    if (data == nullptr || data->GetDataType() != Framework::DataMessage::ALARM) {
        SDK::LogWarning(GetDataCommLogger(), "A message(type:%s) is no alarm and is dropped",
                        message == nullptr ? std::string() : message->GetMsgType());
        return -1;
    }
    for (const std::unique_ptr<AlarmSink>& sink : m_sinks) {
        sink->Offer(data->GetData());
    }
    return 0;
}

}  // namespace Engine
