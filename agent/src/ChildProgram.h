#pragma once

#include "sdk/UniqueDescriptor.h"

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

/// A program that this one starts, talks to by lines, and takes along when it ends, however that
/// comes. Signals of the terminal are not for it, but for this one, which decides when it ends.
///
/// Threads: the one that made it.
class ChildProgram {
public:
    enum class Stream : std::size_t { OUTPUT, ERRORS };
    using Deadline = std::chrono::steady_clock::time_point;

    /// @param program    path of what is run
    /// @param arguments  its name first
    /// @throws Poco::SystemException when it cannot be started
    ChildProgram(const std::string& program, const std::vector<std::string>& arguments);

    /// Asks it to end, and insists after five seconds.
    ~ChildProgram();
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;

    /// Writes a line to its standard input. @return false when it does not take it
    bool Write(const std::string& line) const;

    /// The next line of one of its streams. What comes on the other meanwhile is kept.
    /// @return without its end; nothing at the deadline or at the end of the stream
    std::optional<std::string> ReadLine(Stream stream, Deadline deadline);

    /// Asks it to end; it may still write then.
    void AskToEnd() const;

    /// Readable when it has written something or ended; -1 each that has nothing more to come.
    std::array<int, 2> Descriptors() const {
        return {m_inputs[0].m_pipe.Get(), m_inputs[1].m_pipe.Get()};
    }

    /// Waits for its end. @return its exit status, or 128 and the signal's number; nothing at the
    /// deadline
    std::optional<int> Wait(Deadline deadline);

private:
    struct Input {
        SDK::UniqueDescriptor m_pipe;
        std::string m_text;  // what is no line yet, and lines that nobody has asked for
    };

    bool Collect(Deadline deadline);

    pid_t m_pid = -1;
    SDK::UniqueDescriptor m_standardInput;
    std::array<Input, 2> m_inputs;
    std::optional<int> m_status;
};

}  // namespace Agent
