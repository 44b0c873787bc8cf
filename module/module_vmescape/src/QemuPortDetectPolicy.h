#pragma once

#include "DetectPolicy.h"

#include <map>
#include <set>
#include <string>

namespace Engine {

/// Which programs are virtual machines, and which ports each may hold open.
///
/// Threads: parsed by the thread that delivers policies, before any task sees it; the questions are
/// asked by the port task and change nothing.
class QemuPortDetectPolicy : public DetectPolicy {
public:
    /// @param name  the feature's name
    explicit QemuPortDetectPolicy(const std::string& name);
    ~QemuPortDetectPolicy() override;

    /// Reads a whole policy text. The old rules stay when the text has no monitor list.
    /// @return true when at least one rule was stored; every reason for false is logged. False also
    ///         when a line of the log cannot be written
    bool Parse(const std::string& policyText) override;

    /// Reads and stores one rule. A rule whose program has one already is dropped, which is no
    /// failure.
    /// @param ruleText  one element of the monitor list, as JSON
    /// @return false when it is rejected (logged): no JSON, no program, or no list of ports
    bool ParseMonitorRule(const std::string& ruleText);

    /// True when a rule is kept for exactly this process name.
    bool IsMonitorProcess(const std::string& processName) const;

    /// Asks whether a port is one that the program must not hold. Ports are compared as texts.
    /// @param processId     not looked at
    /// @param abnormalPort  set to the port when it is
    /// @return 1 when it is; 0 when it is allowed, or the program has no rule
    int MatchMonitorRule(const std::string& processName, const std::string& port,
                         const std::string& processId, std::string& abnormalPort) const;

private:
    bool ParseContent(const std::string& policyText);
    bool ParseRule(const std::string& ruleText);

    std::map<std::string, std::set<std::string>> m_monitorRuleMap;  ///< program to allowed ports
};

}  // namespace Engine
