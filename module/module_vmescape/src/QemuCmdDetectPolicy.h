#pragma once

#include "DetectPolicy.h"

#include <map>
#include <set>
#include <string>

namespace Engine {

/// Which programs are virtual machines, and which commands are sensitive below each of them.
///
/// Threads: parsed by the thread that delivers policies, before any task sees it; the questions are
/// asked by the command task and change nothing.
class QemuCmdDetectPolicy : public DetectPolicy {
public:
    /// One rule: the commands below one virtualization program.
    struct AccessRule {
        bool action = true;             ///< true: an allow list; false: a deny list
        std::set<std::string> cmdList;  ///< command lines, executable paths or bare program names
    };

    /// @param name  the feature's name
    explicit QemuCmdDetectPolicy(const std::string& name);
    ~QemuCmdDetectPolicy() override;

    /// Reads a whole policy text. The old rules stay when the text has no monitor list.
    /// @return true when at least one rule was stored; every reason for false is logged
    bool Parse(const std::string& policyText) override;

    /// Reads and stores one rule. A rule whose program has one already is dropped, which is no
    /// failure.
    /// @param ruleText  one element of the monitor list, as JSON
    /// @return false when it is rejected: no JSON, no program, or no list of commands
    bool ParseMonitorRule(const std::string& ruleText);

    /// True when a rule is kept for exactly this process name.
    bool IsMonitorProcess(const std::string& virtCmd) const;

    /// True when the command is sensitive below virtCmd: listed in a deny list, or missing from an
    /// allow list. Listed is a command whose whole line, path, or last component of the path is.
    /// @param virtCmd      the program at the root of the tree; without a rule nothing is sensitive
    /// @param processName  not looked at
    /// @param cmdName      the whole command line
    /// @param cmdPath      the executable's path
    bool MatchMonitorRule(const std::string& virtCmd, const std::string& processName,
                          const std::string& cmdName, const std::string& cmdPath) const;

private:
    bool ParseContent(const std::string& policyText);
    bool ParseRule(const std::string& ruleText);

    std::map<std::string, AccessRule> m_monitorRules;
};

}  // namespace Engine
