#pragma once

#include "LearnedPolicies.h"

#include <json/value.h>

#include <chrono>
#include <string>
#include <vector>

namespace Agent {

/// What learning came to, for people and for programs.
struct LearnReport {
    std::string m_from;  ///< UTC
    std::string m_to;
    std::chrono::seconds m_watched{0};
    bool m_interrupted = false;
    std::string m_folder;              ///< that was written to
    std::string m_inForce;             ///< folder of the policies in force
    std::vector<std::string> m_files;  ///< that were written
    LearnedPolicies::Result m_result;
    std::vector<std::string> m_missed;  ///< why the policies may be too narrow

    /// EXIT_GOOD; EXIT_INCOMPLETE when something stays an alarm; EXIT_FAILED when something was
    /// missed or not written.
    int ExitStatus() const;

    Json::Value ToJson() const;

    /// For people. Safe for a terminal.
    std::string ToText() const;
};

}  // namespace Agent
