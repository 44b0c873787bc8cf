#include "LogChannel.h"

#include "AgentLog.h"

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <string>

namespace {

class LogChannel : public testing::Test {
protected:
    LogChannel() {
        ::signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(::pipe2(m_ends.data(), O_CLOEXEC), 0);
        ::fcntl(m_ends[0], F_SETFL, O_NONBLOCK);
        m_channel = new Agent::LogChannel(m_ends[1]);
    }
    ~LogChannel() override {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }

    void Log(const std::string& text) {
        m_channel->log(Poco::Message("source", text, Poco::Message::PRIO_ERROR));
    }

    std::string Read() const {
        std::string text;
        std::array<char, 4096> buffer;
        for (ssize_t size = 0; (size = ::read(m_ends[0], buffer.data(), buffer.size())) > 0;) {
            text.append(buffer.data(), static_cast<std::size_t>(size));
        }
        return text;
    }

    std::array<int, 2> m_ends{-1, -1};
    Poco::AutoPtr<Agent::LogChannel> m_channel;
};

TEST_F(LogChannel, WritesALineForEachMessage) {
    Log("one");
    Log("two");
    EXPECT_EQ(Read(), "one\ntwo\n");
}

TEST_F(LogChannel, LosesLinesRatherThanTimeWhenNobodyReadsAndCountsThem) {
    const std::string line(1000, 'x');
    for (int i = 0; i < 1000; ++i) {
        Log(line);
    }
    const std::string kept = Read();
    const std::size_t lines = kept.size() / 1001;
    EXPECT_LT(lines, 1000U);
    Log("again");
    EXPECT_EQ(Read(), "(" + std::to_string(1000 - lines) + " lines were lost)\nagain\n");
}

TEST_F(LogChannel, EndsALineThatItCouldNotFinishBeforeTheNext) {
    // More than a pipe holds.
    Log(std::string(200000, 'x'));
    const std::string torn = Read();
    EXPECT_LT(torn.size(), 200000U);
    Log("next");
    EXPECT_EQ(Read(), "\n(1 lines were lost)\nnext\n");
}

TEST_F(LogChannel, CountsWhatAReaderThatWentAwayMissed) {
    ::close(m_ends[0]);
    Log("lost");
    Log("lost too");
    std::array<int, 2> other{-1, -1};
    ASSERT_EQ(::pipe2(other.data(), O_CLOEXEC | O_NONBLOCK), 0);
    ASSERT_EQ(::dup2(other[1], m_ends[1]), m_ends[1]);
    ::close(other[1]);
    m_ends[0] = other[0];
    Log("next");
    EXPECT_EQ(Read(), "(2 lines were lost)\nnext\n");
}

TEST(AgentLog, TellsTimeLevelSourceAndTextWithoutControlCharacters) {
    testing::internal::CaptureStderr();
    Agent::StartLog("information");
    SDK::LogInformation(Agent::Logger(), "a %s b", std::string("\x1b[2J\n"));
    SDK::LogDebug(Agent::Logger(), "not wanted");
    SDK::LoggerUtils::GetInstance()->Configure(nullptr, Poco::Message::PRIO_INFORMATION);
    const std::string text = testing::internal::GetCapturedStderr();
    // 2026-01-01 00:00:00.000 and a blank
    ASSERT_GT(text.size(), 24U);
    EXPECT_EQ(text.substr(24), "Information vmescape-agent: a \\x1b[2J\\n b\n");
}

}  // namespace
