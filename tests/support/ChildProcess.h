#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace TestSupport {

/// A program that a test starts, reads, and ends. Whatever happens, it is gone when the object is.
/// One thread.
class ChildProcess {
public:
    /// How the program ended.
    struct Result {
        int m_status = -1;  ///< exit status, or 128 and the signal's number
        std::string m_output;
        std::string m_errors;
    };

    /// Starts a program; the first argument is its path or name. Fails the test when it cannot.
    explicit ChildProcess(const std::vector<std::string>& arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Runs a program to its end, or until the deadline; then its status is -1.
    static Result Run(const std::vector<std::string>& arguments,
                      std::chrono::milliseconds deadline = std::chrono::seconds(20));

    pid_t Pid() const { return m_pid; }

    /// Sends a signal. Nothing happens when the program has ended.
    void Signal(int number) const;

    /// Waits for the end while collecting what the program writes.
    /// @return its exit status, or 128 and the signal's number; nothing when it still runs
    std::optional<int> Wait(std::chrono::milliseconds deadline = std::chrono::seconds(20));

    /// Stops reading standard output: the program's next line there meets a broken pipe.
    void CloseOutput();

    /// What the program has written to standard output and standard error so far.
    const std::string& Output();
    const std::string& Errors();

private:
    void Collect();
    bool HasEnded();

    pid_t m_pid = -1;
    int m_outputPipe = -1;
    int m_errorPipe = -1;
    std::string m_output;
    std::string m_errors;
    std::optional<int> m_status;
};

}  // namespace TestSupport
