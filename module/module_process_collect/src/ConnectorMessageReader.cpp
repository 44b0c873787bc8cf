#include "ConnectorMessageReader.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstring>

namespace ProcessCollect {

namespace {

// Behind the netlink header stands the connector's, and behind that the event. The event is not
// aligned there as its type demands, hence the copies.
constexpr std::size_t kEventOffset = NLMSG_HDRLEN + sizeof(cn_msg);

// The members of proc_event that all events have.
constexpr std::size_t kCommonBytes = offsetof(proc_event, event_data);

std::size_t BytesNeeded(const proc_event& event) {
    switch (event.what) {
        case proc_event::PROC_EVENT_FORK:
            return kCommonBytes + sizeof(event.event_data.fork);
        case proc_event::PROC_EVENT_EXEC:
            return kCommonBytes + sizeof(event.event_data.exec);
        case proc_event::PROC_EVENT_EXIT:
            // Two words of the end's reason; later kernels append the parent.
            return kCommonBytes + 4 * sizeof(__u32);
        default:
            return kCommonBytes;
    }
}

void Fill(const proc_event& event, ConnectorMessage& message) {
    using Kind = ConnectorMessage::Kind;
    message.m_cpu = event.cpu;
    // ktime_get_ns of the kernel, as the steady clock.
    message.m_time =
        std::chrono::steady_clock::time_point(std::chrono::nanoseconds(event.timestamp_ns));
    switch (event.what) {
        case proc_event::PROC_EVENT_NONE:
            message.m_kind = Kind::ACKNOWLEDGE;
            message.m_error = event.event_data.ack.err;
            return;
        case proc_event::PROC_EVENT_FORK:
            message.m_kind = Kind::FORK;
            message.m_pid = event.event_data.fork.child_pid;
            message.m_tgid = event.event_data.fork.child_tgid;
            message.m_parentTgid = event.event_data.fork.parent_tgid;
            return;
        case proc_event::PROC_EVENT_EXEC:
            message.m_kind = Kind::EXEC;
            message.m_pid = event.event_data.exec.process_pid;
            message.m_tgid = event.event_data.exec.process_tgid;
            return;
        case proc_event::PROC_EVENT_EXIT:
            message.m_kind = Kind::EXIT;
            message.m_pid = event.event_data.exit.process_pid;
            message.m_tgid = event.event_data.exit.process_tgid;
            return;
        default:
            return;
    }
}

}  // namespace

std::size_t ConnectorMessageReader::Read(const void* data, std::size_t size,
                                         ConnectorMessage& message) {
    if (size < kEventOffset + kCommonBytes) {
        return 0;
    }
    const char* bytes = static_cast<const char*>(data);
    nlmsghdr netlink;
    cn_msg connector;
    std::memcpy(&netlink, bytes, sizeof(netlink));
    std::memcpy(&connector, bytes + NLMSG_HDRLEN, sizeof(connector));
    if (netlink.nlmsg_len > size || netlink.nlmsg_len < kEventOffset + connector.len ||
        connector.id.idx != CN_IDX_PROC || connector.id.val != CN_VAL_PROC ||
        connector.len < kCommonBytes) {
        return 0;
    }
    proc_event event{};
    std::memcpy(&event, bytes + kEventOffset, std::min<std::size_t>(connector.len, sizeof(event)));
    if (connector.len < BytesNeeded(event)) {
        return 0;
    }
    ConnectorMessage parsed;
    parsed.m_number = connector.seq;
    Fill(event, parsed);
    message = parsed;
    return std::min<std::size_t>(NLMSG_ALIGN(netlink.nlmsg_len), size);
}

}  // namespace ProcessCollect
