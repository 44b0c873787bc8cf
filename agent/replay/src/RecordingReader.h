#pragma once

#include "RecordedEvent.h"
#include "sdk/UniqueDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Replay {

/// Reads a recording, one event at a time, and sees that it is one: that time never runs backwards
/// nor jumps by more than a year, that it begins with a snapshot, and that each snapshot is whole.
///
/// Threads: one.
class RecordingReader {
public:
    enum class Result {
        EVENT,  ///< there is one
        ENDED,  ///< there are no more: the recording was ended
        CUT,    ///< there are no more, but the recording was not ended; Problem tells more
        BAD,    ///< a line is wrong; Problem tells which and why
    };

    /// Opens a file and reads its first line.
    /// @return EVENT when that is a header, else BAD
    Result Open(const std::string& path, Agent::RecordingHeader& header);

    /// Reads the next event.
    Result Next(Agent::RecordedEvent& event);

    /// Whether the last event was one of a snapshot of which more is to come.
    bool InSnapshot() const { return m_left > 0; }

    /// "FILE:LINE: expected ..., found ..."; safe for a terminal.
    const std::string& Problem() const { return m_problem; }

    /// How much of the file has been read, from 0 to 1; 0 for what has no size.
    double Progress() const;

private:
    Result Line(std::string& line);
    Result Fill();
    Result CheckOrder(const Agent::RecordedEvent& event);
    Result Fail(Result result, const std::string& text);

    std::string m_path;
    SDK::UniqueDescriptor m_file;
    std::string m_buffer;
    std::size_t m_taken = 0;  // of the buffer
    bool m_torn = false;      // the last line has no end
    std::uint64_t m_size = 0;
    std::uint64_t m_read = 0;
    std::uint64_t m_line = 0;
    std::string m_problem;
    std::int64_t m_lastUs = 0;
    std::uint64_t m_left = 0;  // of the snapshot that has begun
    bool m_hasSnapshot = false;
    bool m_ended = false;
};

}  // namespace Replay
