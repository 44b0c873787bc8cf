#include "FileNotifyModule.h"

#include "FileNotifyLog.h"
#include "FileNotifyTask.h"

#include <Poco/Util/AbstractConfiguration.h>
#include <Poco/Util/Application.h>

#include <cstdint>

namespace FileNotify {

namespace {

// Some 15 MB at the most, for a subscriber that stands still.
constexpr std::uint64_t kDefaultBacklog = 65536;

std::uint64_t ReadBacklog() {
    const char* const key = "filenotify.backlog";
    const std::uint64_t backlog =
        Poco::Util::Application::instance().config().getUInt64(key, kDefaultBacklog);
    if (backlog >= 1 && backlog <= UINT32_MAX) {
        return backlog;
    }
    SDK::LogError(Logger(), "Configuration %s is %lu, expected 1 to %lu. %lu is used.",
                  std::string(key), static_cast<unsigned long>(backlog),
                  static_cast<unsigned long>(UINT32_MAX),
                  static_cast<unsigned long>(kDefaultBacklog));
    return kDefaultBacklog;
}

}  // namespace

FileNotifyModule::FileNotifyModule() : Framework::Module("filenotify_module") {}

FileNotifyModule::~FileNotifyModule() = default;

int FileNotifyModule::Init() {
    m_task = new FileNotifyTask(ReadBacklog());
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
