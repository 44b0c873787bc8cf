#include "sdk/Log.h"

#include "sdk/LoggerUtils.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

namespace {

using TestSupport::CapturedLog;

Poco::Logger* Logger() { return SDK::LoggerUtils::GetInstance()->GetModuleLogger("log_test"); }

TEST(Log, CarriesLoggerPriorityTextFileAndLine) {
    const CapturedLog log;
    SDK::LogInformation(Logger(), "number %d of %s", 3, std::string("many"));
    const int line = __LINE__ - 1;
    ASSERT_EQ(log.Lines().size(), 1U);
    const CapturedLog::Line written = log.Lines().front();
    EXPECT_EQ(written.logger, "log_test");
    EXPECT_EQ(written.priority, Poco::Message::PRIO_INFORMATION);
    EXPECT_EQ(written.text, "number 3 of many");
    EXPECT_EQ(written.file, "LogTest.cpp");
    EXPECT_EQ(written.line, line);
}

TEST(Log, KnowsThePrioritiesOfItsHelpers) {
    const CapturedLog log;
    SDK::LogError(Logger(), "e");
    SDK::LogWarning(Logger(), "w");
    SDK::LogInformation(Logger(), "i");
    SDK::LogDebug(Logger(), "d");
    std::vector<int> priorities;
    for (const CapturedLog::Line& line : log.Lines()) {
        priorities.push_back(line.priority);
    }
    EXPECT_EQ(priorities, (std::vector<int>{3, 4, 6, 7}));
}

TEST(Log, WritesATextWithoutArgumentsAsItIs) {
    const CapturedLog log;
    SDK::LogError(Logger(), "100 % of %s");
    EXPECT_EQ(log.Texts(Poco::Message::PRIO_ERROR), std::vector<std::string>{"100 % of %s"});
}

TEST(Log, FormatsNothingThatIsNotWritten) {
    const CapturedLog log(Poco::Message::PRIO_INFORMATION);
    // Formatting would throw: the argument has the wrong type for %s.
    SDK::LogDebug(Logger(), "%s", 3);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(Log, IsSilentWithoutLoggerOrChannel) {
    SDK::LogError(nullptr, "nobody hears this");
    SDK::LogError(Logger(), "nor this");
    const CapturedLog log;
    EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
