#pragma once

#include "EffectivePolicy.h"
#include "MachineList.h"

#include <json/value.h>

#include <cstddef>
#include <map>
#include <string>

namespace Framework {
class Engine;
}

namespace Agent {

/// What the agent watches: the policies in force, and the virtual machines that they reach.
///
/// Threads: one at a time.
class Inventory {
public:
    /// A policy is in force now. @param text  good, and accepted by the module
    void TakePolicy(const std::string& feature, const std::string& text);

    /// How many virtual machines an enabled policy has a rule for.
    std::size_t CountMachines(const MachineList::Processes& processes) const;

    /// All of it: the policies in force as the modules work by them, and the machines.
    Json::Value Document(const MachineList::Processes& processes) const;

    /// A document as tables for people. Safe for a terminal.
    static std::string ToText(const Json::Value& document);

    /// All processes that live; none without a process collector.
    static MachineList::Processes ReadProcesses(Framework::Engine& engine);

private:
    MachineList::Coverage Covered() const;

    std::map<std::string, EffectivePolicy> m_policies;  // by feature
};

}  // namespace Agent
