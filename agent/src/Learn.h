#pragma once

#include "AlarmListener.h"
#include "DraftFolder.h"
#include "Interruption.h"
#include "LearnReport.h"
#include "LearnedPolicies.h"
#include "Options.h"
#include "ScratchFolder.h"
#include "Settings.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

/// Watches this host for a time and writes the narrowest policies under which there would have been
/// no alarm, for an operator to look at.
///
/// Two agents of its own are what it learns from. Under policies that allow nothing, everything is
/// an alarm that a policy could have to do with; under policies that forbid nothing, what no policy
/// silences. So no rule of the detection is written down here a second time.
/// Threads: one.
class Learn {
public:
    /// @throws Poco::SystemException when there is no room for its files
    explicit Learn(const Options& options);

    /// Learns, writes, and prints what came of it.
    /// @return EXIT_GOOD; EXIT_INCOMPLETE when something stays an alarm; EXIT_FAILED when an agent
    ///         did not start, something was missed, or nothing could be written; EXIT_USAGE when
    ///         the folder cannot be used; EXIT_BAD_INPUT for configuration and policies; what an
    ///         agent ended with that did not start
    int Run();

private:
    using Clock = std::chrono::steady_clock;

    int ReadPolicies();
    int ReadPolicy(const PolicyShape& shape, const std::string& path);
    bool PrepareFolder() const;
    int StartAgents();
    int StartAgent(const std::string& name, const LearnedPolicies::PolicyTexts& texts,
                   AlarmListener::Take take);
    void TakeWhatOthersTell();
    void Listen();
    bool TakeWhatCame();
    void WaitUntil(Clock::time_point time);
    void ShowProgress(Clock::duration left);
    void StopAgents();
    int Finish();
    void WritePolicies(LearnReport& report) const;
    void Say(const std::string& text) const;

    const Options& m_options;
    Interruption m_interruption;  // before there is anything to take away
    const bool m_terminal;        // whether somebody watches standard error
    Settings m_settings;
    const DraftFolder m_drafts;
    ScratchFolder m_scratch;
    LearnedPolicies m_learned;
    std::vector<std::unique_ptr<AlarmListener>> m_agents;
    LearnReport m_report;
};

}  // namespace Agent
