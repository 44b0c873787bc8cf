#pragma once

#include "DetectPolicy.h"

#include <map>
#include <set>
#include <string>

namespace Engine {

/// Which directories hold sensitive files, and which of them each virtualization program may or may
/// not touch.
///
/// Threads: parsed by the thread that delivers policies, before any task sees it; the questions are
/// asked by the file task and change nothing.
class QemuFileDetectPolicy : public DetectPolicy {
public:
    /// What a policy text says.
    struct POLICY_INFO {
        bool action = true;  ///< how all lists of files are read. true: allow; false: deny lists
        std::map<std::string, std::set<std::string>> monitorRules;  ///< program to its files
        std::set<std::string> sensitiveDirs;                        ///< to be watched
    };

    /// @param name  the feature's name
    explicit QemuFileDetectPolicy(const std::string& name);
    ~QemuFileDetectPolicy() override;

    /// Reads a whole policy text. What a part of it replaced stays replaced when a later part is
    /// refused; the caller throws the policy away then.
    /// @return true when the directories and at least one rule were read; false is logged
    bool Parse(const std::string& policyText) override;

    /// Reads the sensitive directories, 100 at the most, in place of the old ones.
    /// @param contentText  the policy's content, as JSON
    /// @return false, and the old ones stay, when the list is missing (logged)
    bool ParseSenstiveDirs(const std::string& contentText);

    /// Reads the rules, 50 at the most, in place of the old ones.
    /// @param contentText  the policy's content, as JSON
    /// @return true when at least one was stored; a missing list is logged and the old ones stay
    bool ParseMonitorList(const std::string& contentText);

    /// Reads and stores one rule. A rule whose program has one already is dropped, which is no
    /// failure.
    /// @param ruleText  one element of the monitor list, as JSON
    /// @return false when it is rejected: no JSON, no program, or no list of files
    bool ParseMonitorRule(const std::string& ruleText);

    /// Adds every sensitive directory to the set.
    void GetMonitorDirs(std::set<std::string>& dirs) const;

    /// True when a rule is kept for exactly this process name.
    bool IsMonitorProcess(const std::string& processName) const;

    /// True when the access breaks the rule: the file is listed in a deny list, or missing from an
    /// allow list. Paths are compared whole, byte by byte; without a rule nothing is broken.
    bool MatchMonitorRule(const std::string& processName, const std::string& filePath) const;

private:
    POLICY_INFO m_policyInfo;
};

}  // namespace Engine
