#pragma once

#include "sdk/UniqueDescriptor.h"

#include <functional>
#include <string>

namespace Agent {

/// Answers whoever connects to a local socket, and may: the user who runs the agent.
///
/// Threads: one at a time.
class StatusServer {
public:
    StatusServer() = default;
    ~StatusServer() { Close(); }
    StatusServer(const StatusServer&) = delete;
    StatusServer& operator=(const StatusServer&) = delete;

    /// Listens at a path; its folder is made when it is missing, and a socket that a killed agent
    /// left there is replaced. One that somebody listens at is not.
    /// @return what is wrong, or ""
    std::string Open(const std::string& path);

    /// Takes the socket away.
    void Close();

    /// Readable when somebody has connected; -1 when closed.
    int Descriptor() const { return m_socket.Get(); }

    /// Sends each of those who have connected a text, as far as they take it at once, and hangs up.
    void Answer(const std::function<std::string()>& text) const;

    /// Asks at a path, as the other side. Waits no longer than a few seconds.
    /// @param answer  what was sent
    /// @return what is wrong, or ""
    static std::string Ask(const std::string& path, std::string& answer);

private:
    SDK::UniqueDescriptor m_socket;
    std::string m_path;
};

}  // namespace Agent
