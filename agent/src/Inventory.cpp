#include "Inventory.h"

#include "framework/Engine.h"
#include "process_collect/ProcsFullTask.h"

namespace Agent {

void Inventory::TakePolicy(const std::string& feature, const std::string& text) {
    if (const PolicyShape* shape = PolicyShape::Find(feature); shape != nullptr) {
        m_policies.insert_or_assign(feature, EffectivePolicy(*shape, text));
    }
}

std::size_t Inventory::CountMachines(const MachineList::Processes& processes) const {
    return MachineList(processes, Covered()).Count();
}

MachineList::Processes Inventory::ReadProcesses(Framework::Engine& engine) {
    MachineList::Processes processes;
    auto* task = dynamic_cast<::Engine::ProcsFullTask*>(engine.FindTask("procs_full_task"));
    if (task != nullptr) {
        task->GetProcsMap(processes);
    }
    return processes;
}

MachineList::Coverage Inventory::Covered() const {
    MachineList::Coverage covered;
    for (const auto& [feature, policy] : m_policies) {
        if (!policy.Enabled()) {
            continue;
        }
        for (const EffectivePolicy::Rule& rule : policy.Rules()) {
            covered[rule.m_program].emplace_back(policy.Shape().m_detection);
        }
    }
    return covered;
}

}  // namespace Agent
