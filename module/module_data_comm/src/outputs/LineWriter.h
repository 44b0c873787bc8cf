#pragma once

#include "AlarmWriter.h"
#include "outputs/Patience.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace Engine {

/// Writes whole lines to a descriptor: standard output, a terminal, a pipe. Where a line could not
/// be written whole, as on a disk that became full, the next one begins on a line of its own.
///
/// Ownership: the descriptor stays the caller's.
class LineWriter : public AlarmWriter {
public:
    /// After that time without a reader there is trouble.
    static constexpr std::chrono::seconds PATIENCE{5};

    /// @param name      for the log
    /// @param patience  how long a pipe that stands still is waited for at a time
    LineWriter(int descriptor, std::string name, std::chrono::milliseconds patience = PATIENCE);

    /// Writes lines and their ends. Waits while a pipe is full, until the patience ends or the
    /// deadline.
    std::size_t Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) override;

    /// Only while nobody reads: then it goes on where it stopped within the line. After any other
    /// failure the place may have a part of the line.
    bool ShouldRetry() const override { return m_standsStill; }
    bool IsTerminal() const override;

protected:
    /// Writes one line and its end.
    /// @param why  set when it could not be written
    /// @return false when it could not
    virtual bool WriteLine(const std::string& line, std::string& why);

    /// Lines go there from now on.
    void WriteTo(int descriptor);

private:
    int WriteText();
    int WritePiece();

    int m_descriptor;
    Patience m_patience;
    std::string m_text;          // the line that is being written, with its end
    std::size_t m_done = 0;      // bytes of it that are written
    bool m_standsStill = false;  // the rest of it waits for a reader
    bool m_cut = false;          // what was written last has no end of a line
};

}  // namespace Engine
