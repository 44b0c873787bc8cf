#include "ChildProgram.h"

#include "Interruption.h"

#include <Poco/Exception.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Agent {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(5);
constexpr milliseconds kEndPoll(5);
constexpr int kNotStarted = 127;

struct Pipe {
    SDK::UniqueDescriptor m_read;
    SDK::UniqueDescriptor m_write;

    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw Poco::SystemException("pipe2", errno);
        }
        m_read.Reset(ends[0]);
        m_write.Reset(ends[1]);
    }
};

/// Two ends of one line. Unlike a pipe, a socket can be written to without a signal when nobody
/// reads any more.
std::array<SDK::UniqueDescriptor, 2> MakeSockets() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw Poco::SystemException("socketpair", errno);
    }
    return {SDK::UniqueDescriptor(ends[0]), SDK::UniqueDescriptor(ends[1])};
}

/// Gives a descriptor its number for the program that is run. It may have it already, when this
/// program was started without.
void TakeAs(int number, int descriptor) {
    if (number == descriptor) {
        ::fcntl(descriptor, F_SETFD, 0);
    } else {
        ::dup2(descriptor, number);
    }
}

/// Holds all signals back for as long as it lives.
class HeldSignals {
public:
    HeldSignals() {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~HeldSignals() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

private:
    sigset_t m_before{};
};

/// In a process that was just made: a signal meant for it, which may be here already, is not to be
/// taken for one of those that its parent notes. Nor is one to be ignored or held back: the parent
/// does so with SIGPIPE, and its libraries do.
void TakeSignals() {
    for (const int signal : Interruption::SIGNALS) {
        ::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

milliseconds Left(ChildProgram::Deadline deadline) {
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(deadline - Clock::now()));
}

}  // namespace

ChildProgram::ChildProgram(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    std::array<SDK::UniqueDescriptor, 2> input = MakeSockets();
    Pipe output;
    Pipe errors;
    const pid_t parent = ::getpid();
    const HeldSignals held;
    m_pid = ::fork();
    if (m_pid < 0) {
        throw Poco::SystemException("fork", errno);
    }
    if (m_pid == 0) {
        TakeSignals();
        ::prctl(PR_SET_PDEATHSIG, SIGTERM, 0, 0, 0);
        ::setpgid(0, 0);
        TakeAs(STDIN_FILENO, input[0].Get());
        TakeAs(STDOUT_FILENO, output.m_write.Get());
        TakeAs(STDERR_FILENO, errors.m_write.Get());
        // A parent that ended before the call above would never be missed.
        if (::getppid() == parent) {
            ::execv(program.c_str(), pointers.data());
        }
        ::_exit(kNotStarted);
    }
    m_standardInput = std::move(input[1]);
    m_inputs[0].m_pipe = std::move(output.m_read);
    m_inputs[1].m_pipe = std::move(errors.m_read);
}

ChildProgram::~ChildProgram() {
    if (m_status) {
        return;
    }
    AskToEnd();
    m_standardInput.Reset();
    if (!Wait(Clock::now() + kPatience)) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
}

bool ChildProgram::Write(const std::string& line) const {
    const std::string text = line + '\n';
    return ::send(m_standardInput.Get(), text.data(), text.length(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.length());
}

std::optional<std::string> ChildProgram::ReadLine(Stream stream, Deadline deadline) {
    Input& input = m_inputs[static_cast<std::size_t>(stream)];
    for (;;) {
        const std::size_t end = input.m_text.find('\n');
        if (end != std::string::npos) {
            std::string line = input.m_text.substr(0, end);
            input.m_text.erase(0, end + 1);
            return line;
        }
        if (!input.m_pipe || !Collect(deadline)) {
            return std::nullopt;
        }
    }
}

void ChildProgram::AskToEnd() const {
    if (!m_status) {
        ::kill(m_pid, SIGTERM);
    }
}

std::optional<int> ChildProgram::Wait(Deadline deadline) {
    while (!m_status) {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        } else if (Clock::now() >= deadline) {
            return std::nullopt;
        } else {
            // Its pipes close when it ends; until then what it writes must not hold it up.
            Collect(std::min(deadline, Clock::now() + kEndPoll));
        }
    }
    return m_status;
}

/// Takes in what the program writes next. @return false when nothing came before the deadline
bool ChildProgram::Collect(Deadline deadline) {
    std::array<pollfd, 2> pipes = {
        {{m_inputs[0].m_pipe.Get(), POLLIN, 0}, {m_inputs[1].m_pipe.Get(), POLLIN, 0}}};
    const int timeout = static_cast<int>(Left(deadline).count());
    if (::poll(pipes.data(), pipes.size(), timeout) <= 0) {
        return false;
    }
    for (std::size_t i = 0; i < pipes.size(); ++i) {
        if (pipes[i].revents == 0) {
            continue;
        }
        std::array<char, 4096> text{};
        const ssize_t got = ::read(pipes[i].fd, text.data(), text.size());
        if (got > 0) {
            m_inputs[i].m_text.append(text.data(), static_cast<std::size_t>(got));
        } else {
            m_inputs[i].m_pipe.Reset();
        }
    }
    return true;
}

}  // namespace Agent
