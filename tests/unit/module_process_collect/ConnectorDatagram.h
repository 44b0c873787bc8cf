#pragma once

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

/// Messages of the process connector as the kernel sends them.
inline std::vector<char> Datagram(std::uint32_t cpu, std::uint32_t number, std::uint32_t what,
                                  const std::array<std::int32_t, 4>& data) {
    proc_event event{};
    std::memcpy(&event.what, &what, sizeof(what));
    event.cpu = cpu;
    event.timestamp_ns = 1000 + number;
    std::memcpy(&event.event_data, data.data(), sizeof(data));
    cn_msg connector{};
    connector.id.idx = CN_IDX_PROC;
    connector.id.val = CN_VAL_PROC;
    connector.seq = number;
    connector.len = offsetof(proc_event, event_data) + sizeof(data);
    nlmsghdr netlink{};
    netlink.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(sizeof(connector) + connector.len));
    netlink.nlmsg_type = NLMSG_DONE;
    std::vector<char> bytes(netlink.nlmsg_len);
    std::memcpy(bytes.data(), &netlink, sizeof(netlink));
    std::memcpy(bytes.data() + NLMSG_HDRLEN, &connector, sizeof(connector));
    std::memcpy(bytes.data() + NLMSG_HDRLEN + sizeof(connector), &event, connector.len);
    return bytes;
}

inline std::vector<char> ForkDatagram(std::uint32_t cpu, std::uint32_t number, int parentTgid,
                                      int pid, int tgid) {
    return Datagram(cpu, number, proc_event::PROC_EVENT_FORK, {parentTgid, parentTgid, pid, tgid});
}

inline std::vector<char> ExecDatagram(std::uint32_t cpu, std::uint32_t number, int tgid) {
    return Datagram(cpu, number, proc_event::PROC_EVENT_EXEC, {tgid, tgid, 0, 0});
}

inline std::vector<char> ExitDatagram(std::uint32_t cpu, std::uint32_t number, int pid, int tgid) {
    return Datagram(cpu, number, static_cast<std::uint32_t>(proc_event::PROC_EVENT_EXIT),
                    {pid, tgid, 0, 0});
}

inline std::vector<char> AnswerDatagram(int error) {
    return Datagram(0, 0, proc_event::PROC_EVENT_NONE, {error, 0, 0, 0});
}
