#include "ChildAgent.h"

#include "ExitCode.h"
#include "Interruption.h"

#include <Poco/Format.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <optional>

namespace Agent {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kEndPatience(2);
constexpr std::chrono::milliseconds kLookPeriod(100);

// What the log says when that module is optional, and cannot be loaded or does not start.
constexpr const char* kWithoutFiles = "Module(filenotify_module) is optional";

/// The recording that the configuration may ask for is that of the agent that runs on the host.
std::vector<std::string> Arguments(const ChildAgent::Setup& setup) {
    std::vector<std::string> arguments = {"vmescape-agent", "run"};
    arguments.insert(arguments.end(), setup.m_arguments.begin(), setup.m_arguments.end());
    arguments.insert(arguments.end(), {"--policies", setup.m_policies, "--output", "json:stdout",
                                       "--log-level", "information", "-o",
                                       "status.socket=" + setup.m_status, "-o", "record.file="});
    return arguments;
}

}  // namespace

ChildAgent::ChildAgent(const Setup& setup)
    : m_program(setup.m_program, Arguments(setup)),
      m_running(Poco::format(" is running, %d policies read", setup.m_policyCount)),
      m_directories(setup.m_directories) {}

int ChildAgent::WaitUntilItWatches(std::chrono::seconds patience, std::string& wrong,
                                   const std::function<void()>& meanwhile) {
    const auto deadline = Clock::now() + patience;
    while (!Interruption::Came()) {
        if (m_runs && (m_watches || !m_directories || m_withoutFiles)) {
            return EXIT_GOOD;
        }
        meanwhile();
        // Not all the time at once: an interruption may have come just before the call.
        const std::optional<std::string> line = m_program.ReadLine(
            ChildProgram::Stream::ERRORS, std::min(deadline, Clock::now() + kLookPeriod));
        if (line) {
            TakeLogLine(*line);
        } else if (Clock::now() >= deadline || m_program.Descriptors().back() == -1) {
            wrong = "the agent did not start";
            return Fail();
        }
    }
    wrong = "interrupted";
    return EXIT_FAILED;
}

void ChildAgent::TakeLogLine(const std::string& line) {
    const auto tells = [&line](const std::string& part) {
        return line.find(part) != std::string::npos;
    };
    m_runs = m_runs || tells(m_running);
    m_watches = m_watches || tells(" directories are watched.");
    m_withoutFiles = m_withoutFiles || tells(kWithoutFiles);
    m_log += line + '\n';
}

/// @return what it ended with, when that tells of a failure
int ChildAgent::Fail() {
    std::cerr << m_log;
    const int status = m_program.Wait(Clock::now() + kEndPatience).value_or(int{EXIT_FAILED});
    return status == EXIT_GOOD ? int{EXIT_FAILED} : status;
}

std::string ChildAgent::OwnProgram() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

}  // namespace Agent
