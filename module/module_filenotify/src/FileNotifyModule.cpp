#include "FileNotifyModule.h"

#include "FileNotifyTask.h"

#include <cstdint>

namespace FileNotify {

namespace {

// Some 15 MB at the most, for a subscriber that stands still.
constexpr std::uint64_t kDefaultBacklog = 65536;

}  // namespace

FileNotifyModule::FileNotifyModule() : Framework::Module("filenotify_module") {}

FileNotifyModule::~FileNotifyModule() = default;

int FileNotifyModule::Init() {
    m_task = new FileNotifyTask(ReadNumber("filenotify.backlog", kDefaultBacklog, UINT32_MAX));
    if (RegisterTask(m_task.get(), false) != 0) {
        UnInit();
        return -1;
    }
    return 0;
}

int FileNotifyModule::UnInit() {
    const int result = Framework::Module::UnInit();
    m_task = nullptr;
    return result;
}

}  // namespace FileNotify
