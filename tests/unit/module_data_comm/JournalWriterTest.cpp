#include "outputs/JournalWriter.h"

#include "SampleAlarm.h"
#include "sdk/UniqueDescriptor.h"
#include "support/TemporaryFolder.h"

#include <Poco/Net/SocketAddress.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

using Engine::JournalWriter;
using Engine::OutgoingAlarm;
using Poco::Net::SocketAddress;

/// What stands where the journal does.
class FakeJournal {
public:
    explicit FakeJournal(const std::string& path) {
        std::filesystem::remove(path);
        const SocketAddress address(SocketAddress::UNIX_LOCAL, path);
        EXPECT_EQ(::bind(m_socket.Get(), address.addr(), address.length()), 0);
    }

    /// The next entry; empty when there is none. One that comes as a file is read from its start.
    std::string Receive() {
        std::string text(1 << 20, '\0');
        iovec data{text.data(), text.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t size = ::recvmsg(m_socket.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        const cmsghdr* header = size < 0 ? nullptr : CMSG_FIRSTHDR(&message);
        return header == nullptr ? text : ReadFile(header);
    }

    /// The seals of the last file.
    int Seals() const { return m_seals; }

private:
    std::string ReadFile(const cmsghdr* header) {
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
        const SDK::UniqueDescriptor file(descriptor);
        m_seals = ::fcntl(file.Get(), F_GET_SEALS);
        struct stat status {};
        EXPECT_EQ(::fstat(file.Get(), &status), 0);
        std::string text(static_cast<std::size_t>(status.st_size), '\0');
        EXPECT_EQ(::pread(file.Get(), text.data(), text.size(), 0), status.st_size);
        return text;
    }

    SDK::UniqueDescriptor m_socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    int m_seals = 0;
};

class JournalWriterTest : public testing::Test {
protected:
    std::size_t Write(const std::vector<OutgoingAlarm>& alarms) {
        return m_writer.Write(alarms, m_why);
    }
    static std::string Entry(const OutgoingAlarm& alarm) {
        return JournalWriter::Encode(JournalWriter::FieldsOf(alarm));
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "socket";
    JournalWriter m_writer{m_path};
    std::string m_why;
};

TEST(JournalFields, NameWhatASearchLooksFor) {
    Json::Value alarm = SampleAlarm();
    alarm["event_classid"] = "vmescape_0001";
    alarm["event_id"] = "1339d456-526c-48e8-b706-eb1bc9bc0e8c";
    const std::string document = SDK::JsonUtils::JsonToString(alarm);
    EXPECT_EQ(JournalWriter::FieldsOf({document, "a text"}),
              (JournalWriter::Fields{
                  {"MESSAGE", "a text"},
                  {"MESSAGE_ID", "9da43e64b71a476da35ae93e43a748f5"},
                  {"PRIORITY", "1"},
                  {"SYSLOG_FACILITY", "10"},
                  {"SYSLOG_IDENTIFIER", "vmescape-agent"},
                  {"VMESCAPE_CLASS", "vmescape_0001"},
                  {"VMESCAPE_VM", "vm-01"},
                  {"VMESCAPE_EVENT_ID", "1339d456-526c-48e8-b706-eb1bc9bc0e8c"},
                  {"VMESCAPE_DOCUMENT", document},
              }));
}

TEST(JournalFields, LeaveOutWhatADocumentDoesNotHave) {
    for (const char* document : {"no document", "[]", R"({"resource_info":[],"event_id":7})"}) {
        const JournalWriter::Fields fields = JournalWriter::FieldsOf({document, "text"});
        EXPECT_EQ(fields.size(), 6U) << document;
        EXPECT_EQ(fields.back(),
                  (std::pair<std::string, std::string>("VMESCAPE_DOCUMENT", document)));
    }
}

TEST(JournalFields, AreSentWithTheirLengthsSoThatNoValueCanPretendToBeAnother) {
    using std::string_literals::operator""s;
    EXPECT_EQ(JournalWriter::Encode({{"A", "1\nPRIORITY=7"}, {"B", std::string(258, 'x')}}),
              "A\n\x0c\0\0\0\0\0\0\0"
              "1\nPRIORITY=7\n"s
              "B\n\x02\x01\0\0\0\0\0\0"s +
                  std::string(258, 'x') + '\n');
}

TEST_F(JournalWriterTest, SendsOneEntryAnAlarmInTheirOrder) {
    FakeJournal journal(m_path);
    EXPECT_TRUE(m_writer.Prepare(m_why)) << m_why;
    const std::vector<OutgoingAlarm> alarms = {{"{}", "one"}, {"{}", "two"}};
    EXPECT_EQ(Write(alarms), 2U) << m_why;
    EXPECT_EQ(journal.Receive(), Entry(alarms[0]));
    EXPECT_EQ(journal.Receive(), Entry(alarms[1]));
    EXPECT_EQ(journal.Receive(), "");
}

TEST_F(JournalWriterTest, SaysThatThereIsNoJournal) {
    EXPECT_FALSE(m_writer.Prepare(m_why));
    EXPECT_EQ(m_why, "no journal at " + m_path + ": No such file or directory");
    m_why.clear();
    EXPECT_EQ(Write({{"{}", "one"}}), 0U);
    EXPECT_EQ(m_why, "no journal at " + m_path + ": No such file or directory");
    EXPECT_TRUE(m_writer.ShouldRetry());
}

TEST_F(JournalWriterTest, SaysThatTheJournalHasEnded) {
    { const FakeJournal ended(m_path); }
    EXPECT_EQ(Write({{"{}", "one"}}), 0U);
    EXPECT_EQ(m_why, "no journal at " + m_path + ": Connection refused");
    EXPECT_TRUE(m_writer.ShouldRetry());
}

TEST_F(JournalWriterTest, FindsAJournalThatTookThePlaceOfAnother) {
    FakeJournal first(m_path);
    EXPECT_EQ(Write({{"{}", "one"}}), 1U);
    FakeJournal second(m_path);
    EXPECT_EQ(Write({{"{}", "two"}}), 1U);
    EXPECT_EQ(second.Receive(), Entry({"{}", "two"}));
}

TEST_F(JournalWriterTest, TellsHowManyAJournalTookThatDoesNotRead) {
    FakeJournal journal(m_path);
    m_writer.SetDeadline(std::chrono::steady_clock::now());
    const std::vector<OutgoingAlarm> alarms(10000, {"{}", "one"});
    const auto begin = std::chrono::steady_clock::now();
    const std::size_t taken = Write(alarms);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3))
        << "the deadline ends the wait";
    EXPECT_GT(taken, 0U);
    EXPECT_LT(taken, alarms.size());
    EXPECT_EQ(m_why, "the journal does not read");
    EXPECT_TRUE(m_writer.ShouldRetry());
    std::size_t received = 0;
    while (!journal.Receive().empty()) {
        ++received;
    }
    EXPECT_EQ(received, taken);
}

TEST_F(JournalWriterTest, WaitsForAJournalThatReadsSlowly) {
    FakeJournal journal(m_path);
    const std::vector<OutgoingAlarm> alarms(1000, {"{}", "one"});
    std::size_t received = 0;
    std::thread reader([&] {
        while (received < alarms.size()) {
            received += journal.Receive().empty() ? 0 : 1;
        }
    });
    const std::size_t taken = Write(alarms);
    EXPECT_EQ(taken, alarms.size()) << m_why;
    reader.join();
}

TEST_F(JournalWriterTest, SendsWhatNoDatagramHoldsAsASealedFile) {
    FakeJournal journal(m_path);
    const std::vector<OutgoingAlarm> alarms = {{"{}", std::string(1 << 20, 'x')}, {"{}", "small"}};
    EXPECT_EQ(Write(alarms), 2U) << m_why;
    EXPECT_EQ(journal.Receive(), Entry(alarms[0]));
    EXPECT_EQ(journal.Seals(), F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
    EXPECT_EQ(journal.Receive(), Entry(alarms[1]));
}

TEST_F(JournalWriterTest, IsForPeople) {
    EXPECT_TRUE(m_writer.IsForPeople());
    EXPECT_FALSE(m_writer.IsTerminal());
    EXPECT_EQ(m_writer.Name(), "journald");
}

}  // namespace
