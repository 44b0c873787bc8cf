#include "FileNotifyModule.h"

#include "framework/Engine.h"
#include "support/CapturedLog.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/AbstractConfiguration.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using TestSupport::CapturedLog;

TEST(FileNotifyModule, RegistersItsTaskAndTakesItBack) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "fanotify needs root";
    }
    const CapturedLog log;
    Poco::AutoPtr<Framework::Engine> engine = new Framework::Engine;
    engine->config().setString("filenotify.backlog", "0");
    engine->addSubsystem(new FileNotify::FileNotifyModule);
    engine->StartModules();
    EXPECT_NE(engine->FindTask("filenotify_task"), nullptr);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                        "Configuration filenotify.backlog is 0, expected 1 to 4294967295. 65536 is "
                        "used."),
              1U);
    engine->StopModules();
    EXPECT_EQ(engine->FindTask("filenotify_task"), nullptr);
}

}  // namespace
