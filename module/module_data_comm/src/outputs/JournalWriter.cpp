#include "outputs/JournalWriter.h"

#include "sdk/JsonUtils.h"

#include <Poco/Error.h>
#include <Poco/Format.h>
#include <Poco/Net/SocketAddress.h>

#include <endian.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace Engine {

namespace {

// Waiting for a journal that does not read is done in pieces, between which the deadline of a stop
// is looked at: five seconds together.
constexpr int kSliceMs = 100;
constexpr int kPatienceSlices = 50;

constexpr const char* kIdentifier = "vmescape-agent";

/// Whether something is too large for one datagram.
bool IsTooLarge(int error) { return error == EMSGSIZE || error == ENOBUFS; }

}  // namespace

JournalWriter::JournalWriter(std::string socket)
    : AlarmWriter("journald"), m_socket(std::move(socket)) {}

bool JournalWriter::Prepare(std::string& why) { return static_cast<bool>(Connect(why)); }

std::size_t JournalWriter::Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) {
    m_retry = true;
    const SDK::UniqueDescriptor journal = Connect(why);
    std::size_t done = 0;
    while (journal && done < alarms.size() &&
           Send(journal.Get(), Encode(FieldsOf(alarms[done])), why)) {
        ++done;
    }
    return done;
}

JournalWriter::Fields JournalWriter::FieldsOf(const OutgoingAlarm& alarm) {
    Json::Value document;
    SDK::JsonUtils::ParseJsonStr(alarm.m_document.c_str(), alarm.m_document.length(), document);
    Json::Value resource;
    SDK::JsonUtils::GetSubobjectValue(document, "resource_info", resource);
    // The document's severity is another scale, and the same for all alarms: they are what syslog
    // calls them.
    Fields fields = {
        {"MESSAGE", alarm.m_text},
        {"MESSAGE_ID", MESSAGE_ID},
        {"PRIORITY", std::to_string(LOG_ALERT)},
        {"SYSLOG_FACILITY", std::to_string(LOG_FAC(LOG_AUTHPRIV))},
        {"SYSLOG_IDENTIFIER", kIdentifier},
        {"VMESCAPE_CLASS", SDK::JsonUtils::GetStringValue(document, "event_classid", "")},
        {"VMESCAPE_VM", SDK::JsonUtils::GetStringValue(resource, "vm_name", "")},
        {"VMESCAPE_EVENT_ID", SDK::JsonUtils::GetStringValue(document, "event_id", "")},
        {"VMESCAPE_DOCUMENT", alarm.m_document},
    };
    std::erase_if(fields, [](const auto& field) { return field.second.empty(); });
    return fields;
}

std::string JournalWriter::Encode(const Fields& fields) {
    std::string entry;
    for (const auto& [name, value] : fields) {
        // With the length before the value, which then may have any bytes in it.
        const std::uint64_t length = htole64(value.size());
        std::array<char, sizeof(length)> bytes{};
        std::memcpy(bytes.data(), &length, sizeof(length));
        entry += name + '\n';
        entry.append(bytes.data(), bytes.size());
        entry += value + '\n';
    }
    return entry;
}

SDK::UniqueDescriptor JournalWriter::Connect(std::string& why) const {
    using Poco::Net::SocketAddress;
    const SocketAddress address(SocketAddress::UNIX_LOCAL, m_socket);
    SDK::UniqueDescriptor journal(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!journal || ::connect(journal.Get(), address.addr(), address.length()) != 0) {
        why = Poco::format("no journal at %s: %s", m_socket, Poco::Error::getMessage(errno));
        journal.Reset();
    }
    return journal;
}

bool JournalWriter::Send(int journal, std::string entry, std::string& why) {
    iovec data{entry.data(), entry.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    int error = Deliver(journal, message);
    if (IsTooLarge(error)) {
        error = SendAsFile(journal, entry);
    }
    if (error != 0) {
        why = error == EAGAIN ? "the journal does not read" : Poco::Error::getMessage(error);
    }
    return error == 0;
}

/// Sends what no datagram holds as the descriptor of a sealed file in memory.
/// @return 0, or the error number
int JournalWriter::SendAsFile(int journal, const std::string& entry) {
    const SDK::UniqueDescriptor file(
        ::memfd_create(kIdentifier, unsigned{MFD_CLOEXEC} | unsigned{MFD_ALLOW_SEALING}));
    const int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
    if (!file ||
        ::write(file.Get(), entry.data(), entry.size()) != static_cast<ssize_t>(entry.size()) ||
        ::fcntl(file.Get(), F_ADD_SEALS, seals) != 0) {
        m_retry = false;  // those behind it are smaller
        return errno;     // after a short write still that of the datagram: too large
    }
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int descriptor = file.Get();
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof(descriptor));
    return Deliver(journal, message);
}

/// Sends a message, and waits while the journal's queue is full.
/// @return 0, or the error number
int JournalWriter::Deliver(int journal, const msghdr& message) const {
    for (int slices = 0; ::sendmsg(journal, &message, MSG_NOSIGNAL) < 0; ++slices) {
        if (errno != EAGAIN || slices >= kPatienceSlices || DeadlinePassed()) {
            return errno;
        }
        pollfd writable{journal, POLLOUT, 0};
        ::poll(&writable, 1, kSliceMs);
    }
    return 0;
}

}  // namespace Engine
