#include "MachineList.h"

#include <algorithm>

namespace Agent {

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
