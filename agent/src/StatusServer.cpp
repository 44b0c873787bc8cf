#include "StatusServer.h"

#include "AgentLog.h"

#include <Poco/Error.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace Agent {

namespace {

constexpr std::chrono::seconds kPatience(LocalListener::PATIENCE_S);  // of both sides

// No request is as long; what comes beyond is read and thrown away.
constexpr std::size_t kMaxRequest = 256;

std::string WhyNot() {
    return errno == EAGAIN ? "it does not answer within " + std::to_string(kPatience.count()) + " s"
                           : Poco::Error::getMessage(errno);
}

/// Reads what has come of a request.
/// @param request  without its end, once that has come
/// @return false when more may come; true at its end, or the connection's
bool ReadRequest(int socket, std::string& request) {
    std::array<char, 4096> text{};
    const ssize_t got = ::recv(socket, text.data(), text.size(), 0);
    if (got > 0) {
        request.append(text.data(), static_cast<std::size_t>(got));
    }
    const std::size_t end = request.find('\n');
    request.resize(std::min({request.length(), end, kMaxRequest}));
    return end != std::string::npos || got == 0 || (got < 0 && errno != EAGAIN);
}

}  // namespace

std::string StatusServer::Open(const std::string& path) {
    if (std::string wrong = m_listener.Open(path); !wrong.empty()) {
        return wrong;
    }
    m_timer.Reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    m_events.Reset(::epoll_create1(EPOLL_CLOEXEC));
    if (!m_timer || !m_events || !Watch(m_timer.Get(), EPOLLIN, EPOLL_CTL_ADD) ||
        !Watch(m_listener.Descriptor(), EPOLLIN, EPOLL_CTL_ADD)) {
        std::string error = Poco::Error::getMessage(errno);
        Close();
        return error;
    }
    return "";
}

void StatusServer::Close() {
    m_clients.clear();
    m_timer.Reset();
    m_events.Reset();
    m_listener.Close();
}

void StatusServer::Answer(const Handler& handler) {
    std::array<epoll_event, MAX_CLIENTS + 2> events{};
    const int count =
        ::epoll_wait(m_events.Get(), events.data(), static_cast<int>(events.size()), 0);
    for (int i = 0; i < count; ++i) {
        const int ready = events.at(static_cast<std::size_t>(i)).data.fd;
        if (ready == m_listener.Descriptor()) {
            TakeIn(handler);
            continue;
        }
        // None for the timer, nor for a client that was dropped a moment ago.
        const auto client = std::find_if(
            m_clients.begin(), m_clients.end(),
            [ready](const Client& candidate) { return candidate.m_socket.Get() == ready; });
        if (client != m_clients.end() && !Serve(*client, handler)) {
            m_clients.erase(client);
        }
    }
    DropLateOnes();
    SetTimer();
}

/// Takes in some of those who have connected. Most have sent their request already.
void StatusServer::TakeIn(const Handler& handler) {
    for (std::size_t i = 0; i < MAX_CLIENTS; ++i) {
        Client client;
        client.m_socket.Reset(
            ::accept4(m_listener.Descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!client.m_socket) {
            return;
        }
        client.m_deadline = Clock::now() + kPatience;
        if (!Watch(client.m_socket.Get(), EPOLLIN, EPOLL_CTL_ADD) || !Serve(client, handler)) {
            continue;
        }
        m_clients.push_back(std::move(client));
        if (m_clients.size() > MAX_CLIENTS) {
            SDK::LogWarning(Logger(), "More than %lu clients ask at once, the oldest is dropped",
                            static_cast<unsigned long>(MAX_CLIENTS));
            m_clients.pop_front();
        }
    }
}

/// Goes on with a client as far as it goes without waiting. @return false when that was the end
bool StatusServer::Serve(Client& client, const Handler& handler) const {
    if (!client.m_asked) {
        if (!ReadRequest(client.m_socket.Get(), client.m_request)) {
            return true;
        }
        client.m_asked = true;
        client.m_answer = handler(client.m_request);
        Watch(client.m_socket.Get(), EPOLLOUT, EPOLL_CTL_MOD);
    }
    const ssize_t sent = ::send(client.m_socket.Get(), client.m_answer.data() + client.m_sent,
                                client.m_answer.length() - client.m_sent, MSG_NOSIGNAL);
    if (sent < 0) {
        return errno == EAGAIN;
    }
    client.m_sent += static_cast<std::size_t>(sent);
    client.m_deadline = Clock::now() + kPatience;
    return client.m_sent < client.m_answer.length();
}

bool StatusServer::Watch(int descriptor, unsigned int events, int operation) const {
    epoll_event event{};
    event.events = events;
    event.data.fd = descriptor;
    return ::epoll_ctl(m_events.Get(), operation, descriptor, &event) == 0;
}

void StatusServer::DropLateOnes() {
    const Clock::time_point now = Clock::now();
    m_clients.remove_if([now](const Client& client) {
        if (now < client.m_deadline) {
            return false;
        }
        SDK::LogWarning(Logger(), "A client that %s nothing for %d s is dropped",
                        std::string(client.m_asked ? "took" : "asked"),
                        static_cast<int>(kPatience.count()));
        return true;
    });
}

/// Makes the timer ring at the earliest deadline, or not at all.
void StatusServer::SetTimer() const {
    const auto next = std::min_element(
        m_clients.begin(), m_clients.end(),
        [](const Client& one, const Client& other) { return one.m_deadline < other.m_deadline; });
    itimerspec time{};
    if (next != m_clients.end()) {
        // The clock is CLOCK_MONOTONIC.
        const auto when = next->m_deadline.time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(when);
        time.it_value.tv_sec = seconds.count();
        time.it_value.tv_nsec =
            std::chrono::duration_cast<std::chrono::nanoseconds>(when - seconds).count();
    }
    ::timerfd_settime(m_timer.Get(), TFD_TIMER_ABSTIME, &time, nullptr);
}

std::string StatusServer::Ask(const std::string& path, const std::string& request,
                              std::string& answer) {
    const SDK::UniqueDescriptor socket = LocalListener::Connect(path);
    const std::string line = request + '\n';
    if (!socket || ::send(socket.Get(), line.data(), line.length(), MSG_NOSIGNAL) < 0) {
        return WhyNot();
    }
    std::array<char, 65536> text{};
    ssize_t got = 0;
    while ((got = ::read(socket.Get(), text.data(), text.size())) > 0) {
        answer.append(text.data(), static_cast<std::size_t>(got));
    }
    return got < 0 ? WhyNot() : "";
}

}  // namespace Agent
