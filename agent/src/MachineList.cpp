#include "MachineList.h"

#include "Shown.h"
#include "sdk/MachineUtils.h"

#include <algorithm>
#include <ctime>

namespace Agent {

namespace {

constexpr std::int64_t kNanoseconds = 1000000000;

std::int64_t Now(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return now.tv_sec * kNanoseconds + now.tv_nsec;
}

}  // namespace

MachineList::MachineList(const Processes& processes, const Coverage& coverage)
    : m_coverage(coverage) {
    for (const auto& [pid, info] : processes) {
        if (info == nullptr) {
            continue;
        }
        Node node;
        node.m_info = info;
        const auto detections = m_coverage.find(info->m_name);
        node.m_detections = detections == m_coverage.end() ? nullptr : &detections->second;
        m_nodes.push_back(node);
    }
    FindParents();
    const std::vector<std::size_t> order = ChildrenFirst();
    for (const std::size_t at : order) {
        if (m_nodes[at].m_parent != NONE) {
            m_nodes[m_nodes[at].m_parent].m_below += m_nodes[at].m_below + 1;
        }
    }
    for (auto at = order.rbegin(); at != order.rend(); ++at) {
        Node& node = m_nodes[*at];
        const std::size_t above = node.m_parent == NONE ? NONE : m_nodes[node.m_parent].m_machine;
        node.m_machine = above == NONE && node.m_detections != nullptr ? *at : above;
    }
}

std::size_t MachineList::Count() const {
    std::size_t count = 0;
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
        count += m_nodes[i].m_machine == i ? 1 : 0;
    }
    return count;
}

Json::Value MachineList::ToJson(std::size_t& omitted) const {
    const std::int64_t bootNs = Now(CLOCK_REALTIME) - Now(CLOCK_BOOTTIME);
    Json::Value machines = Json::arrayValue;
    std::map<std::size_t, Json::ArrayIndex> shown;  // machines, and their places in the list
    std::size_t count = 0;
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
        if (m_nodes[i].m_machine == i && ++count <= MAX_SHOWN) {
            shown[i] = machines.size();
            machines.append(ToJson(m_nodes[i], bootNs))["processes"] = Json::arrayValue;
        }
    }
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
        const Node& node = m_nodes[i];
        if (node.m_detections != nullptr && node.m_machine != NONE && node.m_machine != i &&
            ++count <= MAX_SHOWN) {
            machines[shown[node.m_machine]]["processes"].append(ToJson(node, bootNs));
        }
    }
    omitted = count - std::min(count, MAX_SHOWN);
    return machines;
}

/// @param bootNs  when the host booted, in nanoseconds since the epoch
Json::Value MachineList::ToJson(const Node& node, std::int64_t bootNs) {
    const Engine::ProcsMessage::procInfo& info = *node.m_info;
    const auto startNs = static_cast<std::int64_t>(info.m_startTime);
    Json::Value entry;
    entry["pid"] = info.m_pid;
    entry["name"] = Shorten(info.m_name);
    entry["vm_name"] = Shorten(SDK::MachineUtils::GetNameFromCmdline(info.m_cmdline));
    entry["since"] = startNs > 0 ? ShowTime((bootNs + startNs) / kNanoseconds) : "";
    entry["below"] = Json::UInt64{node.m_below};
    for (const std::string& detection : *node.m_detections) {
        entry["detections"].append(detection);
    }
    return entry;
}

void MachineList::FindParents() {
    for (Node& node : m_nodes) {
        const auto parent = std::lower_bound(
            m_nodes.begin(), m_nodes.end(), node.m_info->m_ppid,
            [](const Node& candidate, int pid) { return candidate.m_info->m_pid < pid; });
        if (parent != m_nodes.end() && parent->m_info->m_pid == node.m_info->m_ppid) {
            node.m_parent = static_cast<std::size_t>(parent - m_nodes.begin());
        }
    }
}

/// All processes, each behind those below it. A circle of parents, which nobody should tell of, is
/// left out with all that it hangs from.
std::vector<std::size_t> MachineList::ChildrenFirst() const {
    std::vector<std::size_t> children(m_nodes.size(), 0);
    for (const Node& node : m_nodes) {
        if (node.m_parent != NONE) {
            ++children[node.m_parent];
        }
    }
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
        if (children[i] == 0) {
            order.push_back(i);
        }
    }
    for (std::size_t done = 0; done < order.size(); ++done) {
        const std::size_t parent = m_nodes[order[done]].m_parent;
        if (parent != NONE && --children[parent] == 0) {
            order.push_back(parent);
        }
    }
    return order;
}

}  // namespace Agent
