#include "ReplayedFileTask.h"

#include "filenotify/FileNotifyMessage.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "sdk/PathUtils.h"

#include <algorithm>
#include <set>

namespace Replay {

namespace {

// Nothing is queued, and an inbox must hold at least one message.
constexpr unsigned int kInboxCapacity = 1;

}  // namespace

ReplayedFileTask::ReplayedFileTask(const RecordedWatches& watches)
    : Framework::Task("filenotify_task", "", Framework::TaskCondition::RESIDENT_TASK,
                      kInboxCapacity),
      m_watches(watches) {}

ReplayedFileTask::~ReplayedFileTask() = default;

int ReplayedFileTask::InterceptMsg(std::shared_ptr<Framework::Message>& message) {
    const auto* request = dynamic_cast<const Engine::FileNotifyWatchMessage*>(message.get());
    if (request == nullptr) {
        return 1;
    }
    const SDK::LockGuard lock(m_mutex);
    const auto known =
        std::find_if(m_requests.begin(), m_requests.end(), [request](const Request& other) {
            return other.m_inbox == request->GetInbox() && other.m_directory == request->GetPath();
        });
    Request& entry = known == m_requests.end() ? m_requests.emplace_back() : *known;
    entry = {request->GetInbox(), request->GetPath(), request->GetOptions().m_recursive,
             request->GetOptions().m_remove};
    return 1;
}

void ReplayedFileTask::Tell(int pid, int mask, const std::string& path) {
    const SDK::LockGuard lock(m_mutex);
    std::set<std::shared_ptr<Framework::Inbox>> told;
    for (const Request& request : m_requests) {
        // Who asked for two directories that both hold it is told once.
        if (!request.m_ended && Concerns(request, path) && told.insert(request.m_inbox).second) {
            request.m_inbox->Send(std::make_shared<Engine::FileNotifyMessage>(pid, mask, path));
        }
    }
}

bool ReplayedFileTask::Concerns(const Request& request, const std::string& path) const {
    const std::string directory = m_watches.Resolve(request.m_directory);
    const std::string above = path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
    return request.m_recursive ? SDK::PathUtils::IsWithin(above, directory) : above == directory;
}

std::vector<std::string> ReplayedFileTask::NotRecorded() {
    const SDK::LockGuard lock(m_mutex);
    std::set<std::string> directories;
    for (const Request& request : m_requests) {
        if (!m_watches.Cover(request.m_directory)) {
            directories.insert(request.m_directory);
        }
    }
    return {directories.begin(), directories.end()};
}

}  // namespace Replay
