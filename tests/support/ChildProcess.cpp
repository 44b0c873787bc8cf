#include "support/ChildProcess.h"

#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

namespace TestSupport {

namespace {

constexpr int kNotStarted = 127;

/// The reading end does not block, so that a test can look without waiting.
void MakePipe(int& readEnd, int& writeEnd) {
    std::array<int, 2> ends{-1, -1};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    ASSERT_EQ(::fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    readEnd = ends[0];
    writeEnd = ends[1];
}

void ReadAvailable(int descriptor, std::string& text) {
    std::array<char, 65536> buffer;
    for (ssize_t size = 0; (size = ::read(descriptor, buffer.data(), buffer.size())) > 0;) {
        text.append(buffer.data(), static_cast<std::size_t>(size));
    }
}

[[noreturn]] void Become(char* const* arguments, int output, int errors) {
    ::dup2(output, STDOUT_FILENO);
    ::dup2(errors, STDERR_FILENO);
    const int nothing = ::open("/dev/null", O_RDONLY);
    ::dup2(nothing, STDIN_FILENO);
    // A test that dies takes its programs along.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::execvp(arguments[0], arguments);
    ::_exit(kNotStarted);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
    int output = -1;
    int errors = -1;
    MakePipe(m_outputPipe, output);
    MakePipe(m_errorPipe, errors);
    std::vector<std::string> texts = arguments;
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid == 0) {
        Become(pointers.data(), output, errors);
    }
    ::close(errors);
    ::close(output);
    EXPECT_GT(m_pid, 0) << arguments[0];
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && !HasEnded()) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    CloseOutput();
    ::close(m_errorPipe);
}

ChildProcess::Result ChildProcess::Run(const std::vector<std::string>& arguments,
                                       std::chrono::milliseconds deadline) {
    ChildProcess child(arguments);
    Result result;
    result.m_status = child.Wait(deadline).value_or(-1);
    result.m_output = child.Output();
    result.m_errors = child.Errors();
    return result;
}

void ChildProcess::Signal(int number) const {
    if (!m_status.has_value()) {
        ::kill(m_pid, number);
    }
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds deadline) {
    WaitUntil(
        [this] {
            Collect();
            return HasEnded();
        },
        deadline);
    return m_status;
}

void ChildProcess::CloseOutput() {
    ::close(m_outputPipe);
    m_outputPipe = -1;
}

const std::string& ChildProcess::Output() {
    Collect();
    return m_output;
}

const std::string& ChildProcess::Errors() {
    Collect();
    return m_errors;
}

void ChildProcess::Collect() {
    if (m_outputPipe >= 0) {
        ReadAvailable(m_outputPipe, m_output);
    }
    ReadAvailable(m_errorPipe, m_errors);
}

bool ChildProcess::HasEnded() {
    int status = 0;
    if (!m_status.has_value() && ::waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return m_status.has_value();
}

}  // namespace TestSupport
