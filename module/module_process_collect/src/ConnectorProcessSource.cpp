#include "ConnectorProcessSource.h"

#include "ProcessCollectLog.h"

#include <Poco/Error.h>

#include <linux/capability.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ProcessCollect {

namespace {

// The kernel keeps this much for us while /proc is read; beyond it messages are lost.
constexpr int kReceiveBytes = 8 << 20;

// A datagram holds one message of less than 100 bytes; room for a page of them.
constexpr std::size_t kDatagramBytes = 4096;

// The kernel answers within the call that asks; this is for a machine that is at its limits.
constexpr int kAnswerMs = 1000;

// Every message wakes the reader by itself.
constexpr int kSleepMs = 1000;

struct Request {
    alignas(NLMSG_ALIGNTO)
        std::array<char, NLMSG_SPACE(sizeof(cn_msg) + sizeof(proc_cn_mcast_op))> m_bytes{};
};

Request MakeRequest(proc_cn_mcast_op operation) {
    Request request;
    nlmsghdr netlink{};
    netlink.nlmsg_len = NLMSG_LENGTH(sizeof(cn_msg) + sizeof(operation));
    netlink.nlmsg_type = NLMSG_DONE;
    cn_msg connector{};
    connector.id.idx = CN_IDX_PROC;
    connector.id.val = CN_VAL_PROC;
    connector.len = sizeof(operation);
    char* at = request.m_bytes.data();
    std::memcpy(at, &netlink, sizeof(netlink));
    std::memcpy(at + NLMSG_HDRLEN, &connector, sizeof(connector));
    std::memcpy(at + NLMSG_HDRLEN + sizeof(connector), &operation, sizeof(operation));
    return request;
}

// Whatever is wrong with the connector, it is one line.
bool Refuse(const char* what, int error) {
    SDK::LogWarning(Logger(),
                    "The process connector cannot be used(%s): %s. It needs CAP_NET_ADMIN and "
                    "CAP_SYS_PTRACE in the first namespaces and a kernel with CONFIG_PROC_EVENTS.",
                    std::string(what), Poco::Error::getMessage(error));
    return false;
}

// Late kernels let anyone listen, but the events are worth little to whoever may not ask /proc
// which programs others run.
bool MayAsk() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
    ::syscall(SYS_capget, &header, sets.data());
    const bool may =
        (sets[CAP_TO_INDEX(CAP_SYS_PTRACE)].effective & CAP_TO_MASK(CAP_SYS_PTRACE)) != 0;
    return may || Refuse("capabilities", EPERM);
}

}  // namespace

ConnectorProcessSource::~ConnectorProcessSource() { Stop(); }

bool ConnectorProcessSource::Start() {
    if (!MayAsk() || !Open() || !Listen() || !WaitForAnswer()) {
        Stop();
        return false;
    }
    SDK::LogWarning(Logger(),
                    "Process events come from the connector: the arguments of a process that ends "
                    "at once may stay unknown.");
    return true;
}

void ConnectorProcessSource::Stop() {
    if (m_socket >= 0) {
        ::close(std::exchange(m_socket, -1));
    }
    m_nextNumber.clear();
    m_leaderless.clear();
}

bool ConnectorProcessSource::Open() {
    m_socket = ::socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_CONNECTOR);
    if (m_socket < 0) {
        return Refuse("socket", errno);
    }
    ::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBytes, sizeof(kReceiveBytes));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return Refuse("bind", errno);
    }
    return true;
}

bool ConnectorProcessSource::Listen() {
    const Request request = MakeRequest(PROC_CN_MCAST_LISTEN);
    if (::send(m_socket, request.m_bytes.data(), request.m_bytes.size(), 0) < 0) {
        return Refuse("send", errno);
    }
    return true;
}

bool ConnectorProcessSource::WaitForAnswer() {
    std::array<char, kDatagramBytes> datagram;
    pollfd waiting{m_socket, POLLIN, 0};
    while (::poll(&waiting, 1, kAnswerMs) > 0) {
        const ssize_t size = ::recv(m_socket, datagram.data(), datagram.size(), 0);
        ConnectorMessage message;
        if (size <= 0 || ConnectorMessageReader::Read(
                             datagram.data(), static_cast<std::size_t>(size), message) == 0) {
            continue;
        }
        CountGap(message);
        if (message.m_kind == ConnectorMessage::Kind::ACKNOWLEDGE) {
            return message.m_error == 0 || Refuse("listen", static_cast<int>(message.m_error));
        }
        // Events before the answer are older than the first scan, which covers them.
    }
    return Refuse("no answer", ETIMEDOUT);
}

std::size_t ConnectorProcessSource::Drain(const Sink& sink) {
    std::size_t events = 0;
    std::array<char, kDatagramBytes> datagram;
    while (m_socket >= 0) {
        const ssize_t size = ::recv(m_socket, datagram.data(), datagram.size(), 0);
        if (size > 0) {
            events += HandleDatagram(datagram.data(), static_cast<std::size_t>(size), sink);
        } else if (size < 0 && errno == ENOBUFS) {
            ++m_overruns;
            ++m_unexplained;
        } else if (size == 0 || errno != EINTR) {
            break;
        }
    }
    return events;
}

int ConnectorProcessSource::PrepareSleep(std::size_t /*drained*/) { return kSleepMs; }

std::uint64_t ConnectorProcessSource::LostEvents() const {
    return m_overruns + m_gaps + m_malformed;
}

std::vector<LossCount> ConnectorProcessSource::Losses() const {
    return {LossCount{"receive buffer full", m_overruns, true},
            LossCount{"message missing", m_gaps, true}, LossCount{"malformed", m_malformed, true},
            LossCount{"process ended before it could be asked", m_tooLate, false}};
}

std::size_t ConnectorProcessSource::HandleDatagram(const void* data, std::size_t size,
                                                   const Sink& sink) {
    std::size_t events = 0;
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        ConnectorMessage message;
        const std::size_t taken = ConnectorMessageReader::Read(at, size, message);
        if (taken == 0) {
            ++m_malformed;
            return events;
        }
        CountGap(message);
        events += HandleMessage(message, sink) ? 1 : 0;
        at += taken;
        size -= taken;
    }
    return events;
}

void ConnectorProcessSource::CountGap(const ConnectorMessage& message) {
    // Answers are numbered by the request.
    if (message.m_kind == ConnectorMessage::Kind::ACKNOWLEDGE) {
        return;
    }
    const auto [next, isFirst] = m_nextNumber.try_emplace(message.m_cpu, message.m_number);
    // Modulo 2^32, like the kernel's counter. A number from the past is no gap.
    const auto gap = static_cast<std::int32_t>(message.m_number - next->second);
    next->second = message.m_number + 1;
    if (isFirst || gap <= 0) {
        return;
    }
    const std::uint64_t explained = std::min(static_cast<std::uint64_t>(gap), m_unexplained);
    m_unexplained -= explained;
    m_gaps += static_cast<std::uint64_t>(gap) - explained;
}

bool ConnectorProcessSource::HandleMessage(const ConnectorMessage& message, const Sink& sink) {
    switch (message.m_kind) {
        case ConnectorMessage::Kind::FORK:
            return HandleFork(message, sink);
        case ConnectorMessage::Kind::EXEC:
            return HandleExec(message, sink);
        case ConnectorMessage::Kind::EXIT:
            return HandleExit(message, sink);
        default:
            return false;
    }
}

bool ConnectorProcessSource::HandleFork(const ConnectorMessage& message, const Sink& sink) {
    if (message.m_pid != message.m_tgid) {
        return false;  // a thread
    }
    ProcStat stat;
    ProcStatReader::Read(message.m_tgid, stat);
    ProcessEvent event;
    event.m_type = Engine::ProcsMessage::FORK;
    event.m_pid = message.m_tgid;
    event.m_parentPid = message.m_parentTgid;
    event.m_startTime = stat.m_startTime;
    event.m_comm = stat.m_comm;
    sink(event);
    return true;
}

bool ConnectorProcessSource::HandleExec(const ConnectorMessage& message, const Sink& sink) {
    ProcStat stat;
    ProcStatReader::Read(message.m_tgid, stat);
    const std::string path = ProcReader::ReadExePath(message.m_tgid);
    const std::string arguments = ProcReader::ReadArguments(message.m_tgid);
    ProcessEvent event;
    event.m_type = Engine::ProcsMessage::EXEC;
    event.m_pid = message.m_tgid;
    event.m_parentPid = stat.m_parentPid;
    event.m_startTime = stat.m_startTime;
    event.m_marks = stat.m_marks;
    event.m_time = message.m_time;
    event.m_comm = stat.m_comm;
    event.m_exePath = path;
    event.m_arguments = arguments;
    event.m_incomplete = path.empty() || arguments.empty();
    m_tooLate += event.m_incomplete ? 1 : 0;
    sink(event);
    return true;
}

bool ConnectorProcessSource::HandleExit(const ConnectorMessage& message, const Sink& sink) {
    if (message.m_pid != message.m_tgid && m_leaderless.count(message.m_tgid) == 0) {
        return false;
    }
    ProcStat stat;
    if (ProcStatReader::Read(message.m_tgid, stat) && stat.Alive()) {
        m_leaderless.insert(message.m_tgid);
        return false;
    }
    m_leaderless.erase(message.m_tgid);
    ProcessEvent event;
    event.m_type = Engine::ProcsMessage::EXIT;
    event.m_pid = message.m_tgid;
    sink(event);
    return true;
}

}  // namespace ProcessCollect
