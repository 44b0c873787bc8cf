#pragma once

#include "sdk/UniqueDescriptor.h"

#include <string>

namespace Agent {

/// Listens at a local socket (unix(7)), to which only the user who opened it may connect.
///
/// Threads: one at a time.
class LocalListener {
public:
    LocalListener() = default;
    ~LocalListener() { Close(); }
    LocalListener(const LocalListener&) = delete;
    LocalListener& operator=(const LocalListener&) = delete;

    /// Listens at a path; its folder is made when it is missing, and a socket that a killed program
    /// left there is replaced. One that somebody listens at is not, nor is anything else.
    /// @return what is wrong, or ""
    std::string Open(const std::string& path);

    /// Takes the socket away. @return what is wrong, or ""
    std::string Close();

    /// Readable when somebody has connected, and never waits; -1 when closed.
    int Descriptor() const { return m_socket.Get(); }

    /// Connects to a path, as the other side. Neither this nor what is done with the result waits
    /// longer than a few seconds.
    /// @return the connection; none, and errno, when there is no way
    static SDK::UniqueDescriptor Connect(const std::string& path);

    /// How long the other side waits, in seconds.
    static constexpr int PATIENCE_S = 5;

private:
    SDK::UniqueDescriptor m_socket;
    std::string m_path;
};

}  // namespace Agent
