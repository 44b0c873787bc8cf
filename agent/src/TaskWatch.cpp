#include "TaskWatch.h"

#include <Poco/Format.h>

#include <utility>

namespace Agent {

std::vector<std::string> TaskWatch::Look(const std::vector<Framework::Engine::TaskStatus>& tasks) {
    std::vector<std::string> stuck;
    std::map<std::string, Seen> seen;
    for (const Framework::Engine::TaskStatus& task : tasks) {
        if (task.m_passive) {
            continue;
        }
        const Seen now{task.m_messagesAccepted - task.m_inboxDepth, task.m_inboxDepth > 0};
        const auto before = m_seen.find(task.m_name);
        if (task.m_ended) {
            stuck.push_back(Poco::format("Task(%s) has ended", task.m_name));
        } else if (before != m_seen.end() && before->second.m_waiting && now.m_waiting &&
                   before->second.m_taken == now.m_taken) {
            stuck.push_back(Poco::format("Task(%s) is stuck, %u messages wait for it", task.m_name,
                                         task.m_inboxDepth));
        }
        seen.emplace(task.m_name, now);
    }
    m_seen = std::move(seen);
    return stuck;
}

}  // namespace Agent
