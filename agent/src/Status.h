#pragma once

#include "framework/Engine.h"
#include "sdk/Ledger.h"

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Agent {

/// What the agent knows of itself, as it is told to who asks.
///
/// Threads: one at a time.
class Status {
public:
    /// @param startedS  when the agent started, in seconds since the epoch
    explicit Status(std::int64_t startedS) : m_startedS(startedS) {}

    /// A policy is in force now.
    /// @param text  of the policy; its "hash" is shown
    void TakePolicy(const std::string& feature, const std::string& path, const std::string& text,
                    std::int64_t nowS);

    /// What was refused is over: its file is gone, or the policy in force was delivered again.
    void ForgetRefusal(const std::string& feature);

    /// A policy was refused. What was in force stays, and the agent counts as degraded until a good
    /// one comes.
    void RefusePolicy(const std::string& feature, const std::string& path, const std::string& why);

    /// The tasks that do not work, one line each. @return false when they are the same as before
    bool TakeStuckTasks(const std::vector<std::string>& stuck);

    /// All of it.
    /// @param tasks  what the engine tells of its tasks now
    /// @param books  of the collectors and outputs, now
    /// @param machines  how many virtual machines are monitored now
    Json::Value Document(const std::vector<Framework::Engine::TaskStatus>& tasks,
                         const std::vector<SDK::Ledger>& books, std::size_t machines = 0) const;

    /// A document as a table for people. Safe for a terminal.
    static std::string ToText(const Json::Value& document);

private:
    struct Policy {
        std::string m_path;
        std::string m_hash;
        bool m_enabled = true;
        unsigned int m_generation = 0;
        std::int64_t m_sinceS = 0;
        std::string m_refusal;  // of a later text; "" when there is none
    };

    Json::Value PolicyEntries() const;
    std::vector<std::string> Reasons(const std::vector<SDK::Ledger>& books) const;
    Json::Value TaskEntry(const Framework::Engine::TaskStatus& task) const;

    const std::int64_t m_startedS;
    std::map<std::string, Policy> m_policies;
    std::vector<std::string> m_stuck;
};

}  // namespace Agent
