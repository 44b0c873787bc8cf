#pragma once

#include "ChildAgent.h"

#include <json/value.h>
#include <poll.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Agent {

/// Listens to an agent of this program's own: gives its alarms on, those too that it keeps to
/// itself because it raised the same one lately, and notes what it may have missed.
///
/// Threads: the one that made it.
class AlarmListener {
public:
    /// Takes an alarm. @return false when it is none that was to be expected
    using Take = std::function<bool(const Json::Value& alarm)>;

    /// Starts the agent.
    /// @param setup  must name a place for its status
    AlarmListener(const ChildAgent::Setup& setup, Take take);

    /// As ChildAgent::WaitUntilItWatches. That it watches no files is noted.
    int WaitUntilItWatches(
        std::chrono::seconds patience, std::string& wrong,
        const std::function<void()>& meanwhile = [] {});

    /// Adds what becomes readable when the agent has written something or ended.
    void AddDescriptors(std::vector<pollfd>& waited);

    /// Takes what the agent has written, without waiting for more.
    void TakeWhatCame();

    /// Asks the agent how it is, and notes what it lost or cannot do.
    void AskHowItIs();

    /// Whether it ended though nobody asked it to. That is noted, and its last lines are on
    /// standard error.
    bool HasEnded();

    /// Asks it to end, and takes what it still writes.
    void Stop();

    /// What may be missing in what was heard; empty when nothing is.
    std::set<std::string> Missed() const;

private:
    int TakeLines(ChildProgram::Stream stream);
    void TakeAlarm(const std::string& text);
    void TakeLogLine(const std::string& line);
    void NoteLosses(const Json::Value& status);

    const Take m_take;
    const std::string m_status;
    ChildAgent m_agent;
    std::deque<std::string> m_lastLines;          // of its log
    std::map<std::string, std::string> m_missed;  // by what it is about: numbers grow
};

}  // namespace Agent
