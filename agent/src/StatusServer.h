#pragma once

#include "LocalListener.h"
#include "sdk/UniqueDescriptor.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <string>

namespace Agent {

/// Answers whoever asks at a local socket, and may: the user who runs the agent.
///
/// Who asks sends one line, the request, and gets one text, after which the server hangs up. It
/// waits for nobody: each client is served as far as it goes on, and one that does not go on for
/// five seconds is dropped. More than 16 at once are not kept, the oldest goes first.
///
/// Threads: one at a time.
class StatusServer {
public:
    /// Makes the answer to a request, which is its line without the end.
    using Handler = std::function<std::string(const std::string& request)>;

    static constexpr std::size_t MAX_CLIENTS = 16;

    StatusServer() = default;
    ~StatusServer() { Close(); }
    StatusServer(const StatusServer&) = delete;
    StatusServer& operator=(const StatusServer&) = delete;

    /// Listens at a path. @return what is wrong, or "": see LocalListener
    std::string Open(const std::string& path);

    /// Takes the socket away, and hangs up on all clients.
    void Close();

    /// Readable when there is something to do for Answer; -1 when closed.
    int Descriptor() const { return m_events.Get(); }

    /// Does what can be done now, without waiting: takes in who has connected, answers who has
    /// asked, sends what fits, and drops who took too long (logged).
    void Answer(const Handler& handler);

    /// Asks at a path, as the other side. Waits no longer than a few seconds for the next bytes.
    /// @param answer  what was sent
    /// @return what is wrong, or ""
    static std::string Ask(const std::string& path, const std::string& request,
                           std::string& answer);

private:
    using Clock = std::chrono::steady_clock;

    /// Somebody who has connected.
    struct Client {
        SDK::UniqueDescriptor m_socket;
        Clock::time_point m_deadline;
        std::string m_request;  // as far as it has come
        bool m_asked = false;   // it is complete
        std::string m_answer;
        std::size_t m_sent = 0;  // bytes of it
    };

    void TakeIn(const Handler& handler);
    bool Serve(Client& client, const Handler& handler) const;
    bool Watch(int descriptor, unsigned int events, int operation) const;
    void DropLateOnes();
    void SetTimer() const;

    LocalListener m_listener;
    SDK::UniqueDescriptor m_timer;   // of the next client's deadline
    SDK::UniqueDescriptor m_events;  // of all the others
    std::list<Client> m_clients;     // the oldest first
};

}  // namespace Agent
