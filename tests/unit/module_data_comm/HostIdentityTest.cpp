#include "formats/HostIdentity.h"

#include "support/CapturedLog.h"
#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

using Engine::HostIdentity;

TEST(HostIdentity, IsThatOfThisHost) {
    const TestSupport::CapturedLog log;
    const HostIdentity host = HostIdentity::Read();
    EXPECT_EQ(host.m_name + '\n', TestSupport::ChildProcess::Run({"uname", "-n"}).m_output);
    std::string bootId;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> bootId;
    EXPECT_EQ(bootId.length(), 36U);
    EXPECT_EQ(host.m_bootId, bootId);
    EXPECT_EQ(host.m_agentVersion, VMESCAPE_VERSION);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(HostIdentity, WithoutABootIdSaysWhy) {
    const TestSupport::CapturedLog log;
    const HostIdentity host = HostIdentity::Read("/missing");
    EXPECT_EQ(host.m_bootId, "");
    EXPECT_NE(host.m_name, "");
    EXPECT_EQ(log.Count(Poco::Message::PRIO_WARNING,
                        "Alarms carry no boot id: /missing cannot be read: No such file or "
                        "directory"),
              1U);
}

}  // namespace
