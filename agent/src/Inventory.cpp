#include "Inventory.h"

#include "Shown.h"
#include "framework/Engine.h"
#include "process_collect/ProcsFullTask.h"
#include "sdk/JsonUtils.h"
#include "sdk/StrUtils.h"

#include <Poco/Format.h>

#include <set>

namespace Agent {

namespace {

constexpr std::size_t kLineWidth = 100;
constexpr std::size_t kListWidth = 70;  // what of a list is shown to people; --json has all of it

std::string Number(const Json::Value& value) { return std::to_string(value.asUInt64()); }

/// What comes from a file or a process may hold anything.
std::string Safe(const Json::Value& text, std::size_t maxLength = std::string::npos) {
    return SDK::StrUtils::EscapeForTerminal(Shorten(text.asString(), maxLength));
}

/// A text in a column; one that is too long for it moves the others.
std::string Cell(const std::string& text, std::size_t width) {
    return text + std::string(text.length() < width ? width - text.length() : 1, ' ');
}

/// The first texts of a list, at least one, and how many there are more.
std::string First(const Json::Value& list) {
    std::string shown = list.empty() ? "(nothing)" : "";
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const std::string text = Safe(list[i], kListWidth);
        if (i > 0 && shown.length() + text.length() > kListWidth) {
            return shown + " and " + std::to_string(list.size() - i) + " more";
        }
        shown += (i > 0 ? ", " : "") + text;
    }
    return shown;
}

/// All names with commas between, on as many lines as it takes.
std::string Names(const std::vector<std::string>& names) {
    const std::string indent(8, ' ');
    std::string text;
    std::string line = "    for";
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::string name = names[i] + (i + 1 < names.size() ? "," : "");
        if (i > 0 && line.length() + name.length() >= kLineWidth) {
            text += line + '\n';
            line = indent + name;
        } else {
            line += ' ' + name;
        }
    }
    return text + line + '\n';
}

/// A line for each list, and below it the programs that it holds for.
std::string RuleLines(const Json::Value& rules) {
    std::vector<const Json::Value*> lists;
    std::map<std::string, std::vector<std::string>> programs;  // by list
    const auto key = [](const Json::Value& rule) {
        return rule["list"].asString() + SDK::JsonUtils::JsonToString(rule["entries"]);
    };
    for (const Json::Value& rule : rules) {
        std::vector<std::string>& same = programs[key(rule)];
        if (same.empty()) {
            lists.push_back(&rule);
        }
        same.push_back(Safe(rule["program"]));
    }
    std::string text;
    for (const Json::Value* rule : lists) {
        const Json::Value& entries = (*rule)["entries"];
        text += Poco::format("%-8s%8s  %s\n", Safe((*rule)["list"]), std::to_string(entries.size()),
                             First(entries)) +
                Names(programs[key(*rule)]);
    }
    return text;
}

std::string PolicyTable(const Json::Value& policy) {
    std::string text = Poco::format(
        "%s (%s): %s, hash \"%s\"\n", Safe(policy["detection"]), Safe(policy["feature"]),
        std::string(policy["enabled"].asBool() ? "enabled" : "NOT ENABLED, nothing is detected"),
        Safe(policy["hash"]));
    if (policy.isMember("directories")) {
        text += "directories: " + First(policy["directories"]) + '\n';
    }
    text += Poco::format("%-8s%8s\n", std::string("list"), std::string("entries")) +
            RuleLines(policy["rules"]);
    const Json::Value& ignored = policy["ignored"];
    if (ignored["rules"].asUInt64() + ignored["entries"].asUInt64() > 0) {
        text += Poco::format("ignored: %s rules, %s entries\n", Number(ignored["rules"]),
                             Number(ignored["entries"]));
    }
    return text + '\n';
}

std::string ProcessLine(const std::string& who, const Json::Value& process) {
    return Cell(who, 26) + Poco::format("%10s  ", Number(process["pid"])) +
           Cell(Safe(process["name"]), 22) + Cell(Safe(process["since"]), 20) +
           Poco::format("%7s  %s\n", Number(process["below"]), First(process["detections"]));
}

}  // namespace

void Inventory::TakePolicy(const std::string& feature, const std::string& text) {
    if (const PolicyShape* shape = PolicyShape::Find(feature); shape != nullptr) {
        m_policies.insert_or_assign(feature, EffectivePolicy(*shape, text));
    }
}

std::size_t Inventory::CountMachines(const MachineList::Processes& processes) const {
    return MachineList(processes, Covered()).Count();
}

Json::Value Inventory::Document(const MachineList::Processes& processes) const {
    Json::Value document;
    document["policies"] = Json::arrayValue;
    for (const auto& [feature, policy] : m_policies) {
        document["policies"].append(policy.ToJson());
    }
    std::size_t omitted = 0;
    document["machines"] = MachineList(processes, Covered()).ToJson(omitted);
    document["omitted"] = Json::UInt64{omitted};
    return document;
}

std::string Inventory::ToText(const Json::Value& document) {
    std::string text;
    std::set<std::string> inForce;
    for (const Json::Value& policy : document["policies"]) {
        text += PolicyTable(policy);
        inForce.insert(policy["feature"].asString());
    }
    for (const PolicyShape& shape : PolicyShape::All()) {
        if (inForce.count(shape.m_feature) == 0) {
            text += Poco::format("%s (%s): no policy is in force, nothing is detected\n\n",
                                 std::string(shape.m_detection), std::string(shape.m_feature));
        }
    }
    text += Poco::format("%-26s%10s  %-22s%-20s%7s  %s\n", std::string("virtual machine"),
                         std::string("pid"), std::string("process"), std::string("since"),
                         std::string("below"), std::string("detections"));
    for (const Json::Value& machine : document["machines"]) {
        text += ProcessLine(Safe(machine["vm_name"]), machine);
        for (const Json::Value& process : machine["processes"]) {
            text += ProcessLine("  below " + Number(machine["pid"]), process);
        }
    }
    if (document["omitted"].asUInt64() > 0) {
        text += "and " + Number(document["omitted"]) + " more monitored processes\n";
    }
    return text;
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
