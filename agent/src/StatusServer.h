#pragma once

#include "LocalListener.h"

#include <functional>
#include <string>

namespace Agent {

/// Answers whoever connects to a local socket, and may: the user who runs the agent.
///
/// Threads: one at a time.
class StatusServer {
public:
    /// Listens at a path. @return what is wrong, or "": see LocalListener
    std::string Open(const std::string& path) { return m_listener.Open(path); }

    /// Takes the socket away.
    void Close() { m_listener.Close(); }

    /// Readable when somebody has connected; -1 when closed.
    int Descriptor() const { return m_listener.Descriptor(); }

    /// Sends each of those who have connected a text, as far as they take it at once, and hangs up.
    void Answer(const std::function<std::string()>& text) const;

    /// Asks at a path, as the other side. Waits no longer than a few seconds.
    /// @param answer  what was sent
    /// @return what is wrong, or ""
    static std::string Ask(const std::string& path, std::string& answer);

private:
    LocalListener m_listener;
};

}  // namespace Agent
