#include "RecordingReader.h"

#include "RecordingText.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

using Agent::RecordedEvent;
using Kind = RecordedEvent::Kind;
using Result = Replay::RecordingReader::Result;

constexpr const char* kHeader = R"({"recording":"vmescape","version":1,"host":"kvm"})"
                                "\n";
constexpr const char* kSnapshot =
    R"({"at":5,"event":"snapshot","left":0,"process":{"pid":1,"ppid":0,"name":"init"}})"
    "\n";
constexpr const char* kExit = R"({"at":6,"event":"exit","pid":7})"
                              "\n";
constexpr const char* kEnd = R"({"at":9,"event":"end","reason":"stopped"})"
                             "\n";

class RecordingReader : public testing::Test {
protected:
    /// Reads a recording to its end. @return how it ended
    Result Read(const std::string& text) {
        m_events = 0;
        m_folder.Write("r", text);
        Result result = m_reader.Open(m_folder / "r", m_header);
        for (; result == Result::EVENT; result = m_reader.Next(m_event)) {
            ++m_events;
        }
        --m_events;  // the header
        return result;
    }

    /// What is wrong, without the file.
    std::string Problem() const {
        const std::string file = m_folder / "r:";
        EXPECT_EQ(m_reader.Problem().rfind(file, 0), 0U) << m_reader.Problem();
        return m_reader.Problem().substr(file.length());
    }

    TestSupport::TemporaryFolder m_folder;
    Replay::RecordingReader m_reader;
    Agent::RecordingHeader m_header;
    RecordedEvent m_event;
    int m_events = 0;
};

std::string Text(const std::vector<const char*>& lines) {
    std::string text;
    for (const char* line : lines) {
        text += line;
    }
    return text;
}

TEST_F(RecordingReader, ReadsARecordingToItsEnd) {
    EXPECT_EQ(Read(Text({kHeader, kSnapshot, kExit, kEnd})), Result::ENDED);
    EXPECT_EQ(m_events, 3);
    EXPECT_EQ(m_header.m_host, "kvm");
    EXPECT_EQ(m_event.m_kind, Kind::END);
    EXPECT_EQ(m_event.m_reason, "stopped");
    EXPECT_EQ(m_reader.Progress(), 1);
}

TEST_F(RecordingReader, ReadsLinesLongerThanItsChunks) {
    RecordedEvent event;
    event.m_kind = Kind::EXEC;
    event.m_at = 6;
    event.m_process.m_cmdline = std::string(1000000, 'x');
    const std::string line = Agent::RecordingText::Write(event) + '\n';
    EXPECT_EQ(Read(Text({kHeader, kSnapshot}) + line + line + kEnd), Result::ENDED);
    EXPECT_EQ(m_events, 4);
}

TEST_F(RecordingReader, TakesALastLineWithoutItsEnd) {
    std::string text = Text({kHeader, kSnapshot, kExit, kEnd});
    text.pop_back();
    EXPECT_EQ(Read(text), Result::ENDED);
    EXPECT_EQ(m_events, 3);
}

TEST_F(RecordingReader, TellsOfARecordingWhoseAgentWasKilled) {
    EXPECT_EQ(Read(Text({kHeader, kSnapshot, kExit})), Result::CUT);
    EXPECT_EQ(m_events, 2);
    EXPECT_EQ(Problem(), "3: there is no end, the agent was ended or could not write any more");
}

TEST_F(RecordingReader, ReadsUpToALineThatIsTorn) {
    const std::string text = Text({kHeader, kSnapshot, kExit});
    const std::size_t whole = text.size() - std::string(kExit).size();
    for (std::size_t size = whole + 1; size < text.size() - 1; ++size) {
        EXPECT_EQ(Read(text.substr(0, size)), Result::CUT) << size;
        EXPECT_EQ(m_events, 1);
        EXPECT_EQ(Problem(), "3: the line is torn, the agent was ended while it wrote it");
    }
}

TEST_F(RecordingReader, NamesTheLineThatIsWrong) {
    EXPECT_EQ(Read(Text({kHeader, kSnapshot, "{\"at\":6,\"event\":\"exit\"}\n", kEnd})),
              Result::BAD);
    EXPECT_EQ(m_events, 1);
    EXPECT_EQ(Problem(), "3: /pid: expected a whole number from 0 to 2147483647, found nothing");
    EXPECT_EQ(Read(Text({kHeader, kSnapshot, "\n", kEnd})), Result::BAD);
    EXPECT_EQ(Problem().rfind("3: expected JSON: ", 0), 0U) << Problem();
}

TEST_F(RecordingReader, RefusesWhatIsNoRecording) {
    EXPECT_EQ(Read(""), Result::BAD);
    EXPECT_EQ(Problem(), "0: expected the header of a recording, found an empty file");
    EXPECT_EQ(Read("{}\n"), Result::BAD);
    EXPECT_EQ(Problem(),
              "1: this is no recording: /recording: expected \"vmescape\", found nothing");
    EXPECT_EQ(m_reader.Open(m_folder / "missing", m_header), Result::BAD);
    EXPECT_EQ(m_reader.Problem(), m_folder / "missing" + ":0: No such file or directory");
    EXPECT_EQ(m_reader.Open(m_folder.Path(), m_header), Result::BAD);
    EXPECT_EQ(m_reader.Problem(), m_folder.Path() + ":0: Is a directory");
}

TEST_F(RecordingReader, RefusesALineThatIsTooLong) {
    const std::string longLine(Agent::RecordingText::MAX_LINE_BYTES + 70000, ' ');
    EXPECT_EQ(Read(Text({kHeader, kSnapshot}) + longLine + '\n'), Result::BAD);
    EXPECT_EQ(Problem(), "3: expected a line of at most 16777216 bytes");
    EXPECT_EQ(Read(longLine), Result::BAD);
}

TEST_F(RecordingReader, RefusesATimeThatRunsBackwards) {
    EXPECT_EQ(Read(Text({kHeader, kSnapshot,
                         R"({"at":4,"event":"exit","pid":7})"
                         "\n"})),
              Result::BAD);
    EXPECT_EQ(Problem(), "3: /at: expected no time before that of the line above");
}

TEST_F(RecordingReader, RefusesATimeThatJumpsByMoreThanAYear) {
    const auto exit = [](std::int64_t at) {
        return R"({"at":)" + std::to_string(at) + R"(,"event":"exit","pid":7})" + '\n';
    };
    constexpr std::int64_t kMost = 5 + 366LL * 86400 * 1000000;
    EXPECT_EQ(Read(Text({kHeader, kSnapshot}) + exit(kMost)), Result::CUT);
    EXPECT_EQ(m_events, 2);
    EXPECT_EQ(Read(Text({kHeader, kSnapshot}) + exit(1763711565000000)), Result::BAD);
    EXPECT_EQ(Problem(),
              "3: /at: expected microseconds since the epoch, at most 366 days after the line "
              "above, found 20413 days");
    EXPECT_EQ(Read(Text({kHeader, kSnapshot}) + exit(kMost + 1)), Result::BAD);
}

TEST_F(RecordingReader, RefusesARecordingThatDoesNotBeginWithASnapshot) {
    EXPECT_EQ(Read(Text({kHeader, kExit})), Result::BAD);
    EXPECT_EQ(Problem(), "2: /event: expected the snapshot that a recording begins with");
}

TEST_F(RecordingReader, RefusesASnapshotThatIsNotWhole) {
    constexpr const char* kTwoLeft =
        R"({"at":5,"event":"snapshot","left":2,"process":{"pid":1,"ppid":0}})"
        "\n";
    EXPECT_EQ(Read(Text({kHeader, kTwoLeft, kExit})), Result::BAD);
    EXPECT_EQ(Problem(), "3: expected a line of the snapshot with 1 left");
    EXPECT_EQ(Read(Text({kHeader, kTwoLeft, kSnapshot})), Result::BAD);
    EXPECT_EQ(Problem(), "3: expected a line of the snapshot with 1 left");
    EXPECT_EQ(Read(Text({kHeader, kTwoLeft})), Result::CUT);
    EXPECT_TRUE(m_reader.InSnapshot());
}

TEST_F(RecordingReader, RefusesWhatComesBehindTheEnd) {
    EXPECT_EQ(Read(Text({kHeader, kSnapshot, kEnd, kExit})), Result::BAD);
    EXPECT_EQ(Problem(), "4: expected nothing behind the end of the recording");
}

TEST_F(RecordingReader, ShowsNothingOfAFileUnescaped) {
    m_folder.Write("a\x1b[31m", "");
    EXPECT_EQ(m_reader.Open(m_folder / "a\x1b[31m", m_header), Result::BAD);
    EXPECT_EQ(m_reader.Problem().find('\x1b'), std::string::npos);
}

}  // namespace
