#pragma once

#include "ChildProgram.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Agent {

/// An agent that this program starts for itself, beside whatever agent runs on the host: with
/// policies of this program's own, its alarms (JSON, one a line) and its log (from information on)
/// to this program, and without a recording.
///
/// Threads: the one that made it.
class ChildAgent {
public:
    /// How it is started.
    struct Setup {
        std::string m_program;      ///< the agent's path
        std::string m_policies;     ///< folder
        int m_policyCount = 0;      ///< that are in it
        bool m_directories = true;  ///< whether one of them names directories that are there
        std::string m_status;       ///< where it tells its status; "": nowhere
        std::vector<std::string> m_arguments = {};  ///< more arguments of "run"
    };

    /// @throws Poco::SystemException when it cannot be started
    explicit ChildAgent(const Setup& setup);

    /// Waits until it has read its policies and watches, be it without files because their
    /// module is optional. An interruption ends the wait.
    /// @param wrong      what came between; the log is on standard error then, unless it was an
    ///                   interruption
    /// @param meanwhile  is called again and again
    /// @return EXIT_GOOD; what the agent ended with; else EXIT_FAILED
    int WaitUntilItWatches(
        std::chrono::seconds patience, std::string& wrong,
        const std::function<void()>& meanwhile = [] {});

    /// Whether it was to watch directories and goes on without.
    bool MissesFiles() const { return m_directories && m_withoutFiles; }

    /// Its alarms come on OUTPUT, its log on ERRORS.
    ChildProgram& Program() { return m_program; }

    /// The path of the program that runs now.
    static std::string OwnProgram();

private:
    void TakeLogLine(const std::string& line);
    int Fail();

    ChildProgram m_program;
    const std::string m_running;  // part of the line that tells of it
    const bool m_directories;
    bool m_runs = false;
    bool m_watches = false;
    bool m_withoutFiles = false;
    std::string m_log;  // until it watches
};

}  // namespace Agent
