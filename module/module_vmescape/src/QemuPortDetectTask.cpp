#include "QemuPortDetectTask.h"

namespace Engine {

namespace {

constexpr unsigned int kInboxCapacity = 1024;
constexpr int kWaitMs = 1000;
constexpr int kBatch = 128;

}  // namespace

QemuPortDetectTask::QemuPortDetectTask()
    : Framework::Task("qemu_port_detect_task", "qemu_port_detect_feature",
                      Framework::TaskCondition::RESIDENT_TASK, kInboxCapacity) {}

QemuPortDetectTask::~QemuPortDetectTask() = default;

int QemuPortDetectTask::Run() {
    while (state() != TASK_CANCELLING) {
        if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, kBatch) == -1) {
            HandleQueuedMsgs(kBatch);
        }
    }
    return 0;
}

}  // namespace Engine
