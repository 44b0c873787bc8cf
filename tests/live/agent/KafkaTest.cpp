// Alarms reach Kafka, each once, whatever becomes of the brokers and of the agent meanwhile.

#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/KafkaCluster.h"
#include "support/WaitUntil.h"

#include <signal.h>

#include <algorithm>
#include <set>
#include <sstream>

namespace {

using TestSupport::KafkaCluster;
using TestSupport::ReadText;
using TestSupport::WaitUntil;

using Ids = std::multiset<std::string>;

constexpr const char* kTopic = "vm-alarms";

class Kafka : public LiveTest {
protected:
    Agent StartAgent() {
        return {BUILD_FOLDER,
                DenyList(),
                {"--output", "json:file:" + m_file, "--output", "kafka", "-o",
                 "report.kafka.brokers=" + m_cluster.Brokers(), "-o",
                 std::string("report.kafka.topic=") + kTopic, "-o",
                 "report.spool.folder=" + m_folder / "spool"}};
    }

    Ids InFile() const {
        Ids ids;
        std::istringstream lines(ReadText(m_file));
        for (std::string line; std::getline(lines, line);) {
            Json::Value alarm;
            SDK::JsonUtils::ParseJsonStr(line.c_str(), line.length(), alarm);
            ids.insert(alarm["event_id"].asString());
        }
        return ids;
    }

    /// Waits until the file has so many alarms.
    bool WaitForFile(std::size_t count) const {
        return WaitUntil([&] { return InFile().size() >= count; });
    }

    Ids InKafka(std::size_t count) const {
        Ids ids;
        for (const KafkaCluster::Record& record : m_cluster.Read(count)) {
            EXPECT_TRUE(record.m_key.ends_with("/vm-first")) << record.m_key;
            ids.insert(record.m_id);
        }
        return ids;
    }

    const TestSupport::TemporaryFolder m_folder;
    const std::string m_file = m_folder / "alarms";
    KafkaCluster m_cluster{kTopic};
};

TEST_F(Kafka, HasEveryAlarmOnceAlsoThoseOfATimeWithoutBrokersAndOfAnAgentThatEndedInIt) {
    const std::string shell = "for i in 1 2 3 4 5 6 7 8 9 10; do /usr/bin/true $i; done; exit 1";
    {
        Agent agent = StartAgent();
        const Qemu qemu({"-name", "guest=vm-first"});
        qemu.RunShell("/usr/bin/true before");
        ASSERT_TRUE(WaitForFile(2)) << agent.Log();
        EXPECT_EQ(InKafka(InFile().size()), InFile()) << agent.Log();

        m_cluster.Stop();
        const Qemu second({"-name", "guest=vm-first"});
        second.RunShell(shell);
        ASSERT_TRUE(agent.WaitForLog("Output(kafka) cannot be written: "));
        ASSERT_TRUE(WaitForFile(20)) << agent.Log();
        EXPECT_EQ(agent.Stop(SIGTERM), 0);
        EXPECT_TRUE(agent.WaitForLog("alarms in its spool, for the next start"));
    }
    const std::size_t before = InFile().size();
    Agent agent = StartAgent();
    EXPECT_TRUE(agent.WaitForLog("alarms in its spool from before"));
    const Qemu qemu({"-name", "guest=vm-first"});
    qemu.RunShell(shell);
    ASSERT_TRUE(WaitForFile(before + 20)) << agent.Log();
    m_cluster.Start();
    EXPECT_TRUE(agent.WaitForLog("Output(kafka) can be written again. 0 alarms failed so far."));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    EXPECT_EQ(InKafka(InFile().size()), InFile()) << "each once" << agent.Log();
}

TEST_F(Kafka, GetsFromTheSpoolWhatAnAgentThatWasKilledHadPutThere) {
    m_cluster.Stop();
    {
        Agent agent = StartAgent();
        ASSERT_TRUE(agent.WaitForLog("Output(kafka) cannot be written: "));
        const Qemu qemu({"-name", "guest=vm-first"});
        qemu.RunShell("/usr/bin/true kept");
        ASSERT_TRUE(WaitForFile(2)) << agent.Log();
        ASSERT_TRUE(WaitUntil([&] {
            const std::string spooled = ReadText(m_folder / "spool/kafka.1.jsonl");
            return std::count(spooled.begin(), spooled.end(), '\n') >= 2;
        })) << agent.Log();
        agent.Stop(SIGKILL);
    }
    m_cluster.Start();
    Agent agent = StartAgent();
    EXPECT_EQ(InKafka(2), InFile()) << agent.Log();
}

}  // namespace
