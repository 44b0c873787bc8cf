#pragma once

#include "AlarmWriter.h"

#include <string>

namespace Engine {

/// Writes whole lines to a descriptor: standard output, a terminal, a pipe. Where a line could not
/// be written whole, as on a disk that became full, the next one begins on a line of its own.
///
/// Ownership: the descriptor stays the caller's.
class LineWriter : public AlarmWriter {
public:
    /// @param name  for the log
    LineWriter(int descriptor, std::string name);

    /// Writes lines and their ends. Waits while a pipe is full, until the deadline.
    std::size_t Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) override;

    /// Never: a pipe may have taken a part of the line.
    bool ShouldRetry() const override { return false; }
    bool IsTerminal() const override;

protected:
    /// Writes one line and its end.
    /// @param why  set when it could not be written
    /// @return false when it could not
    virtual bool WriteLine(const std::string& line, std::string& why);

    /// Lines go there from now on.
    void WriteTo(int descriptor);

private:
    bool WaitWritable() const;
    bool WriteAll(const std::string& text);

    int m_descriptor;
    bool m_cut = false;  // what was written last has no end of a line
};

}  // namespace Engine
