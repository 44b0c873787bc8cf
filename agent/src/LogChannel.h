#pragma once

#include "sdk/Mutex.h"

#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <cstdint>
#include <string>

namespace Agent {

/// Writes log lines to a descriptor without ever making the logging thread wait for long: when the
/// reader of a pipe stops reading, lines are lost and counted, and detection goes on.
///
/// Threads: any. Ownership: the descriptor stays the caller's.
class LogChannel : public Poco::Channel {
public:
    explicit LogChannel(int descriptor) : m_descriptor(descriptor) {}

    /// Writes the message's text as one line. After a loss the next line that gets through says how
    /// many were lost.
    void log(const Poco::Message& message) override;

private:
    bool WriteLine(const std::string& text, int patienceMs) SDK_REQUIRES(m_mutex);

    const int m_descriptor;
    SDK::Mutex m_mutex;
    std::uint64_t m_lost SDK_GUARDED_BY(m_mutex) = 0;
    bool m_torn SDK_GUARDED_BY(m_mutex) = false;  // the last line has no end yet
};

}  // namespace Agent
