#include "QemuFileDetectTask.h"

namespace Engine {

namespace {

constexpr unsigned int kInboxCapacity = 1024;
constexpr int kWaitMs = 1000;
constexpr int kBatch = 128;

}  // namespace

QemuFileDetectTask::QemuFileDetectTask()
    : Framework::Task("qemu_file_detect_task", "qemu_file_detect_feature",
                      Framework::TaskCondition::RESIDENT_TASK, kInboxCapacity) {}

QemuFileDetectTask::~QemuFileDetectTask() = default;

int QemuFileDetectTask::Run() {
    while (state() != TASK_CANCELLING) {
        if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, kBatch) == -1) {
            HandleQueuedMsgs(kBatch);
        }
    }
    return 0;
}

}  // namespace Engine
