#pragma once

#include "AlarmWriter.h"
#include "sdk/UniqueDescriptor.h"

#include <string>
#include <utility>
#include <vector>

struct msghdr;

namespace Engine {

/// Hands alarms to systemd's journal, one entry an alarm, with fields that a search can name.
///
/// It speaks the journal's own protocol (https://systemd.io/JOURNAL_NATIVE_PROTOCOL/) and not
/// through sd_journal_sendv(3), which tells of a success when there is no journal, and waits
/// without an end while one does not read.
///
/// An alarm counts as written when the journal's socket has taken it. What it had taken, and the
/// journal not read when it ended, comes later where systemd keeps the socket, and is lost
/// elsewhere.
class JournalWriter : public AlarmWriter {
public:
    /// Where the journal listens (systemd-journald.service(8)).
    static constexpr const char* DEFAULT_SOCKET = "/run/systemd/journal/socket";

    /// What all alarms have in common, whatever their text: made for them at random, once.
    static constexpr const char* MESSAGE_ID = "9da43e64b71a476da35ae93e43a748f5";

    /// Names and values.
    using Fields = std::vector<std::pair<std::string, std::string>>;

    explicit JournalWriter(std::string socket = DEFAULT_SOCKET);

    bool Prepare(std::string& why) override;

    /// As the connection is made anew each time: who listens may have been replaced.
    std::size_t BatchSize() const override { return 128; }

    std::size_t Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) override;
    bool ShouldRetry() const override { return m_retry; }
    bool CanBeProbed() const override { return true; }
    bool IsForPeople() const override { return true; }

    /// What the journal is told of an alarm. What the document does not have is left out.
    static Fields FieldsOf(const OutgoingAlarm& alarm);

    /// Fields as they are sent.
    static std::string Encode(const Fields& fields);

private:
    SDK::UniqueDescriptor Connect(std::string& why) const;
    bool Send(int journal, std::string entry, std::string& why);
    int SendAsFile(int journal, const std::string& entry);
    int Deliver(int journal, const msghdr& message) const;

    const std::string m_socket;
    bool m_retry = true;  // the last failure may pass
};

}  // namespace Engine
