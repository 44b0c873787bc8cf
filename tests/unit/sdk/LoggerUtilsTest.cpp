#include "sdk/LoggerUtils.h"

#include "sdk/Log.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

namespace {

using TestSupport::CapturedLog;

Poco::Logger* Logger() { return SDK::LoggerUtils::GetInstance()->GetModuleLogger("log_test"); }

TEST(LoggerUtils, LoggersMadeLaterGetTheCommonChannelAndLevel) {
    const CapturedLog log(Poco::Message::PRIO_WARNING);
    Poco::Logger* later = SDK::LoggerUtils::GetInstance()->GetModuleLogger("made_later");
    EXPECT_EQ(later->getLevel(), Poco::Message::PRIO_WARNING);
    SDK::LogWarning(later, "heard");
    EXPECT_TRUE(log.Contains("heard"));
}

TEST(LoggerUtils, ALoggerWithItsOwnLevelKeepsIt) {
    Poco::Logger* own = SDK::LoggerUtils::GetInstance()->GetModuleLogger("own_level", true);
    own->setLevel(Poco::Message::PRIO_DEBUG);
    const CapturedLog log(Poco::Message::PRIO_ERROR);
    SDK::LogDebug(own, "heard");
    EXPECT_TRUE(log.Contains("heard"));
}

TEST(LoggerUtils, RestoreGivesBackChannelAndLevel) {
    const CapturedLog log;
    Poco::Logger* logger = Logger();
    logger->setChannel(nullptr);
    logger->setLevel(Poco::Message::PRIO_FATAL);
    SDK::LoggerUtils::GetInstance()->Restore();
    SDK::LogDebug(logger, "heard");
    EXPECT_TRUE(log.Contains("heard"));
}

TEST(LoggerUtils, GivesTheSameLoggerForTheSameName) {
    EXPECT_EQ(Logger(), SDK::LoggerUtils::GetInstance()->GetModuleLogger("log_test"));
}

}  // namespace
