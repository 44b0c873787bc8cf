#pragma once

#include "ChildAgent.h"
#include "Interruption.h"
#include "Options.h"
#include "ScratchFolder.h"

#include <memory>
#include <string>
#include <vector>

namespace Agent {

/// Shows that detection works on this host, without touching any virtual machine: an agent of its
/// own watches a process of its own, which does one forbidden thing of each class.
///
/// Threads: one.
class Selftest {
public:
    /// @throws Poco::SystemException when there is no room for its files
    explicit Selftest(const Options& options);

    /// Plays, and prints for each class whether its alarm came and after how long.
    /// @return EXIT_GOOD when all came; what the agent ended with when it did not start; else
    ///         EXIT_FAILED
    int Run();

private:
    /// One class of alarms.
    struct Step {
        std::string m_name;
        std::string m_class;
        std::string m_order;  // for the actor
        int m_patienceS = 0;
        bool m_seen = false;
        double m_milliseconds = 0;
        std::string m_failure{};  // of the act itself
    };

    void WriteFiles() const;
    void WritePolicy(const std::string& feature, const std::string& content) const;
    int StartAgent();
    void Play(Step& step) const;
    bool ReadAlarm(const Step& step, ChildProgram::Deadline deadline) const;
    int Report(const std::vector<Step>& steps) const;
    void Complain(const std::string& text) const;

    const Options& m_options;
    Interruption m_interruption;  // before there is anything to take away
    ScratchFolder m_scratch;
    const std::string m_folder;
    std::unique_ptr<ChildAgent> m_agent;
    std::unique_ptr<ChildProgram> m_actor;
};

}  // namespace Agent
