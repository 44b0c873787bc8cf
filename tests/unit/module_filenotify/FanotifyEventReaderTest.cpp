#include "FanotifyEventReader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using FileNotify::FanotifyEvent;
using FileNotify::FanotifyEventReader;

/// An event as the kernel writes it.
struct Raw {
    std::uint64_t m_mask = FAN_OPEN;
    int m_pid = 42;
    int m_descriptor = FAN_NOFD;
    std::string m_records = {};
    std::uint8_t m_version = FANOTIFY_METADATA_VERSION;
    int m_lengthOff = 0;  // added to the true length

    std::string Bytes() const {
        fanotify_event_metadata metadata{};
        metadata.event_len = static_cast<unsigned>(
            static_cast<int>(sizeof(metadata) + m_records.size()) + m_lengthOff);
        metadata.vers = m_version;
        metadata.metadata_len = sizeof(metadata);
        metadata.mask = m_mask;
        metadata.fd = m_descriptor;
        metadata.pid = m_pid;
        std::string bytes(sizeof(metadata), '\0');
        std::memcpy(bytes.data(), &metadata, sizeof(metadata));
        return bytes + m_records;
    }
};

/// The record of a directory's handle and a name in it.
std::string DirectoryRecord(const std::string& handle, const std::string& name,
                            int type = FAN_EVENT_INFO_TYPE_DFID_NAME, int handleOff = 0) {
    std::string body = "FILESYST";  // the file system's id, 8 bytes
    const unsigned int size = static_cast<unsigned>(static_cast<int>(handle.size()) + handleOff);
    const int handleType = 1;
    body.append(reinterpret_cast<const char*>(&size), sizeof(size));
    body.append(reinterpret_cast<const char*>(&handleType), sizeof(handleType));
    body += handle + name + '\0';
    while (body.size() % 4 != 0) {
        body += '\0';
    }
    fanotify_event_info_header header{};
    header.info_type = static_cast<std::uint8_t>(type);
    header.len = static_cast<std::uint16_t>(sizeof(header) + body.size());
    std::string bytes(sizeof(header), '\0');
    std::memcpy(bytes.data(), &header, sizeof(header));
    return bytes + body;
}

class FanotifyEvents : public testing::Test {
protected:
    bool Read(const std::string& bytes) {
        m_buffer.assign(bytes.size() / 8 + 1, 0);
        std::memcpy(m_buffer.data(), bytes.data(), bytes.size());
        return FanotifyEventReader::Read(reinterpret_cast<const char*>(m_buffer.data()),
                                         bytes.size(), [this](const FanotifyEvent& event) {
                                             m_events.push_back(event);
                                             m_names.emplace_back(event.m_name);
                                             m_keys.emplace_back(event.m_directory);
                                         });
    }

    std::vector<std::uint64_t> m_buffer;
    std::vector<FanotifyEvent> m_events;
    std::vector<std::string> m_names;
    std::vector<std::string> m_keys;
};

TEST_F(FanotifyEvents, NameADirectoryByItsKeyAndAFileInIt) {
    ASSERT_TRUE(Read(Raw{.m_records = DirectoryRecord("handle", "shadow")}.Bytes()));
    ASSERT_EQ(m_events.size(), 1U);
    EXPECT_TRUE(m_events[0].m_hasKey);
    EXPECT_EQ(m_names[0], "shadow");
    EXPECT_EQ(m_keys[0].substr(0, 8), "FILESYST");
    EXPECT_EQ(m_keys[0].substr(16), "handle");
    EXPECT_EQ(m_events[0].m_pid, 42);
    EXPECT_EQ(m_events[0].m_mask, std::uint64_t{FAN_OPEN});
}

TEST_F(FanotifyEvents, ComeInTheirOrder) {
    const std::string first = Raw{.m_pid = 1, .m_records = DirectoryRecord("h", "a")}.Bytes();
    const std::string second = Raw{.m_pid = 2, .m_descriptor = 7}.Bytes();
    ASSERT_TRUE(Read(first + second));
    ASSERT_EQ(m_events.size(), 2U);
    EXPECT_EQ(m_events[0].m_pid, 1);
    EXPECT_EQ(m_events[1].m_pid, 2);
    EXPECT_EQ(m_events[1].m_descriptor, 7);
    EXPECT_FALSE(m_events[1].m_hasKey);
}

TEST_F(FanotifyEvents, MayHaveRecordsOfOtherKindsBefore) {
    const std::string other = DirectoryRecord("x", "y", FAN_EVENT_INFO_TYPE_FID);
    ASSERT_TRUE(Read(Raw{.m_records = other + DirectoryRecord("h", "shadow")}.Bytes()));
    EXPECT_EQ(m_names[0], "shadow");
}

TEST_F(FanotifyEvents, OfAnOverflowNameNothing) {
    ASSERT_TRUE(Read(Raw{.m_mask = FAN_Q_OVERFLOW, .m_pid = 0}.Bytes()));
    EXPECT_EQ(m_events[0].m_mask, std::uint64_t{FAN_Q_OVERFLOW});
    EXPECT_TRUE(m_keys[0].empty());
}

TEST_F(FanotifyEvents, AreNoneInAnEmptyBuffer) {
    EXPECT_TRUE(Read(""));
    EXPECT_TRUE(m_events.empty());
}

TEST_F(FanotifyEvents, OfAnotherVersionAreNotUnderstood) {
    EXPECT_FALSE(Read(Raw{.m_version = FANOTIFY_METADATA_VERSION + 1}.Bytes()));
    EXPECT_TRUE(m_events.empty());
}

TEST_F(FanotifyEvents, BeforeOneThatIsNotUnderstoodAreTold) {
    EXPECT_FALSE(Read(Raw{}.Bytes() + Raw{.m_lengthOff = 1}.Bytes()));
    EXPECT_EQ(m_events.size(), 1U);
}

TEST_F(FanotifyEvents, ThatAreCutShortAreNotUnderstood) {
    const std::string whole = Raw{.m_records = DirectoryRecord("handle", "shadow")}.Bytes();
    for (std::size_t size = 1; size < whole.size(); ++size) {
        EXPECT_FALSE(Read(whole.substr(0, size))) << size;
    }
    EXPECT_TRUE(m_events.empty());
}

TEST_F(FanotifyEvents, ShorterThanTheirOwnHeadAreNotUnderstood) {
    EXPECT_FALSE(Read(Raw{.m_lengthOff = -1}.Bytes()));
}

TEST_F(FanotifyEvents, WithAHandleLongerThanItsRecordAreNotUnderstood) {
    const std::string record =
        DirectoryRecord("handle", "shadow", FAN_EVENT_INFO_TYPE_DFID_NAME, 100);
    EXPECT_FALSE(Read(Raw{.m_records = record}.Bytes()));
}

TEST_F(FanotifyEvents, WithARecordOfNoLengthAreNotUnderstood) {
    EXPECT_FALSE(Read(Raw{.m_records = std::string(8, '\0')}.Bytes()));
}

}  // namespace
