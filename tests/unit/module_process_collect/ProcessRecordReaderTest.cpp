#include "ProcessRecordReader.h"

#include "ProcessRecord.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Engine::ProcsMessage;
using ProcessCollect::ProcessEvent;
using ProcessCollect::ProcessRecordReader;

class RecordReader : public testing::Test {
protected:
    RecordReader() {
        m_record.version = PROCESS_RECORD_VERSION;
        m_record.type = PROCESS_EXEC;
        m_record.pid = 42;
        m_record.parentPid = 7;
        m_record.startTime = 123;
        m_record.eventTime = 124;
        m_record.stackStart = 5;
        m_record.argumentStart = 6;
        std::strcpy(m_record.comm, "sh");
        SetTexts(std::string("sh\0-c\0", 6), "/bin/sh");
    }

    void SetTexts(const std::string& arguments, const std::string& path) {
        m_texts = arguments + path;
        m_record.argumentBytes = static_cast<__u16>(arguments.size());
        m_record.pathBytes = static_cast<__u16>(path.size());
    }

    bool Read() {
        m_bytes.assign(sizeof(m_record), '\0');
        std::memcpy(m_bytes.data(), &m_record, sizeof(m_record));
        m_bytes += m_texts;
        return ProcessRecordReader::Read(m_bytes.data(), m_bytes.size(), m_event);
    }

    ProcessRecord m_record{};
    std::string m_texts;
    std::string m_bytes;
    ProcessEvent m_event;
};

TEST_F(RecordReader, ReadsAnExec) {
    ASSERT_TRUE(Read());
    EXPECT_EQ(m_event.m_type, ProcsMessage::EXEC);
    EXPECT_EQ(m_event.m_pid, 42);
    EXPECT_EQ(m_event.m_parentPid, 7);
    EXPECT_EQ(m_event.m_startTime, 123U);
    EXPECT_EQ(m_event.m_time.time_since_epoch(), std::chrono::nanoseconds(124));
    EXPECT_EQ(m_event.m_marks.m_stackStart, 5U);
    EXPECT_EQ(m_event.m_marks.m_argumentStart, 6U);
    EXPECT_EQ(m_event.m_comm, "sh");
    EXPECT_EQ(m_event.m_arguments, std::string_view("sh\0-c\0", 6));
    EXPECT_EQ(m_event.m_exePath, "/bin/sh");
    EXPECT_FALSE(m_event.m_incomplete);
}

TEST_F(RecordReader, ReadsForkAndExitWithoutTexts) {
    SetTexts("", "");
    m_record.type = PROCESS_FORK;
    ASSERT_TRUE(Read());
    EXPECT_EQ(m_event.m_type, ProcsMessage::FORK);
    m_record.type = PROCESS_EXIT;
    ASSERT_TRUE(Read());
    EXPECT_EQ(m_event.m_type, ProcsMessage::EXIT);
}

TEST_F(RecordReader, NameWithoutANulEndsWithItsField) {
    std::memset(m_record.comm, 'x', sizeof(m_record.comm));
    ASSERT_TRUE(Read());
    EXPECT_EQ(m_event.m_comm, std::string(PROCESS_COMM_BYTES, 'x'));
}

TEST_F(RecordReader, MissingTextsMakeTheEventIncomplete) {
    m_record.flags = PROCESS_PATH_CUT;
    ASSERT_TRUE(Read());
    EXPECT_TRUE(m_event.m_incomplete);
    m_record.flags = PROCESS_ARGUMENTS_UNREADABLE;
    ASSERT_TRUE(Read());
    EXPECT_TRUE(m_event.m_incomplete);
    m_record.flags = PROCESS_ARGUMENTS_CUT;
    ASSERT_TRUE(Read());
    EXPECT_FALSE(m_event.m_incomplete);
}

TEST_F(RecordReader, AnotherVersionIsRefused) {
    m_record.version = PROCESS_RECORD_VERSION + 1;
    EXPECT_FALSE(Read());
}

TEST_F(RecordReader, UnknownTypeIsRefused) {
    for (const unsigned type : {0U, 4U, 65535U}) {
        m_record.type = static_cast<__u16>(type);
        EXPECT_FALSE(Read()) << type;
    }
}

TEST_F(RecordReader, ImpossiblePidIsRefused) {
    m_record.pid = 0;
    EXPECT_FALSE(Read());
    m_record.pid = -1;
    EXPECT_FALSE(Read());
}

TEST_F(RecordReader, TextsLongerThanTheirLimitsAreRefused) {
    SetTexts(std::string(PROCESS_ARGUMENT_BYTES + 1, 'x'), "");
    EXPECT_FALSE(Read());
    SetTexts("", std::string(PROCESS_PATH_BYTES + 1, 'x'));
    EXPECT_FALSE(Read());
    SetTexts(std::string(PROCESS_ARGUMENT_BYTES, 'x'), std::string(PROCESS_PATH_BYTES, 'y'));
    EXPECT_TRUE(Read());
}

TEST_F(RecordReader, RecordCutAnywhereIsRefusedAndChangesNothing) {
    ASSERT_TRUE(Read());
    for (std::size_t size = 0; size < m_bytes.size(); ++size) {
        // Copied, so that a sanitizer sees a read beyond the end.
        const std::vector<char> cut(m_bytes.begin(),
                                    m_bytes.begin() + static_cast<std::ptrdiff_t>(size));
        ProcessEvent event;
        event.m_pid = -5;
        EXPECT_FALSE(ProcessRecordReader::Read(cut.data(), cut.size(), event)) << size;
        EXPECT_EQ(event.m_pid, -5);
    }
}

TEST_F(RecordReader, AnyBytesAreReadInsideTheirBounds) {
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        std::vector<char> bytes(random() % 200);
        for (char& byte : bytes) {
            byte = static_cast<char>(random() % 8);
        }
        ProcessEvent event;
        if (ProcessRecordReader::Read(bytes.data(), bytes.size(), event)) {
            const char* end = bytes.data() + bytes.size();
            EXPECT_LE(event.m_arguments.data() + event.m_arguments.size(), end);
            EXPECT_LE(event.m_exePath.data() + event.m_exePath.size(), end);
        }
    }
}

}  // namespace
