#pragma once

#include "process_collect/ProcsMessage.h"

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

/// The virtual machines among a host's processes. A process is monitored when its name has a rule;
/// a monitored process with none above it is a machine.
///
/// Threads: one at a time.
class MachineList {
public:
    /// Processes by pid, as the process collector tells them.
    using Processes = std::map<int, std::shared_ptr<Engine::ProcsMessage::procInfo>>;

    /// By the name of a program, the detections that have a rule for it, each in one word.
    using Coverage = std::map<std::string, std::vector<std::string>>;

    /// Takes time in proportion to the number of processes, however deep their trees are.
    MachineList(const Processes& processes, const Coverage& coverage);
    MachineList(const MachineList&) = delete;
    MachineList& operator=(const MachineList&) = delete;

    /// How many machines there are.
    std::size_t Count() const;

    /// The machines, each with the monitored processes below it. Of more than MAX_SHOWN processes,
    /// machines are shown before others.
    /// @param omitted  set to how many monitored processes are not shown
    Json::Value ToJson(std::size_t& omitted) const;

    static constexpr std::size_t MAX_SHOWN = 1000;

private:
    static constexpr std::size_t NONE = static_cast<std::size_t>(-1);

    /// One process; others are meant by their place in m_nodes.
    struct Node {
        std::shared_ptr<Engine::ProcsMessage::procInfo> m_info;
        const std::vector<std::string>* m_detections = nullptr;  // null: it is not monitored
        std::size_t m_parent = NONE;
        std::size_t m_machine = NONE;  // that it belongs to, itself perhaps
        std::size_t m_below = 0;       // processes, their children included
    };

    void FindParents();
    std::vector<std::size_t> ChildrenFirst() const;
    static Json::Value ToJson(const Node& node, std::int64_t bootNs);

    const Coverage m_coverage;
    std::vector<Node> m_nodes;  // by pid
};

}  // namespace Agent
