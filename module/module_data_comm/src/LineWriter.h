#pragma once

#include "AlarmWriter.h"

#include <string>

namespace Engine {

/// Writes whole lines to a descriptor: standard output, a terminal, a pipe.
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
    void WriteTo(int descriptor) { m_descriptor = descriptor; }

private:
    bool WaitWritable() const;
    bool WriteAll(const std::string& text) const;

    int m_descriptor;
};

}  // namespace Engine
