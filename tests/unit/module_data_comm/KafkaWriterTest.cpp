#include "outputs/KafkaWriter.h"

#include "AlarmSink.h"
#include "SampleAlarm.h"
#include "SinkBooks.h"
#include "support/CapturedLog.h"
#include "support/KafkaCluster.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <Poco/Environment.h>
#include <gtest/gtest.h>
#include <librdkafka/rdkafka.h>

#include <map>
#include <optional>
#include <set>

namespace {

using Engine::AlarmFormatter;
using Engine::AlarmSink;
using Engine::AlarmSpool;
using Engine::KafkaSettings;
using Engine::KafkaWriter;
using Engine::OutgoingAlarm;
using TestSupport::KafkaCluster;
using TestSupport::WaitUntil;

constexpr const char* kTopic = "alarms";

OutgoingAlarm Alarm(const std::string& id, const std::string& vm = "vm-01") {
    Json::Value alarm = SampleAlarm();
    alarm["event_id"] = id;
    alarm["resource_info"]["vm_name"] = vm;
    return {SDK::JsonUtils::JsonToString(alarm), "text of " + id};
}

std::vector<OutgoingAlarm> Alarms(int begin, int end) {
    std::vector<OutgoingAlarm> alarms;
    for (int i = begin; i < end; ++i) {
        alarms.push_back(Alarm(std::to_string(i)));
    }
    return alarms;
}

class Kafka : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string missing = KafkaCluster::Missing(); !missing.empty()) {
            GTEST_SKIP() << missing;
        }
        m_cluster.emplace(kTopic);
    }

    std::unique_ptr<KafkaWriter> Open(
        std::vector<std::pair<std::string, std::string>> properties = {}) {
        std::string why;
        auto writer = KafkaWriter::Open({m_cluster->Brokers(), kTopic, std::move(properties)}, why);
        EXPECT_NE(writer, nullptr) << why;
        return writer;
    }
    /// One that has found its brokers.
    std::unique_ptr<KafkaWriter> OpenReady(
        std::vector<std::pair<std::string, std::string>> properties = {}) {
        auto writer = Open(std::move(properties));
        EXPECT_TRUE(WaitUntil([&] { return writer->Prepare(m_why); })) << m_why;
        return writer;
    }
    std::unique_ptr<AlarmSink> Sink(std::size_t capacity = 1000) {
        std::string why;
        auto spool = AlarmSpool::Open(m_folder.Path(), "kafka", 1 << 20, why);
        EXPECT_NE(spool, nullptr) << why;
        return std::make_unique<AlarmSink>(
            Open(), AlarmFormatter(AlarmFormatter::Style::JSON, false), capacity, std::move(spool));
    }
    static std::multiset<std::string> Ids(const std::vector<KafkaCluster::Record>& records) {
        std::multiset<std::string> ids;
        for (const KafkaCluster::Record& record : records) {
            ids.insert(record.m_id);
        }
        return ids;
    }
    static std::multiset<std::string> Numbers(int begin, int end) {
        std::multiset<std::string> ids;
        for (int i = begin; i < end; ++i) {
            ids.insert(std::to_string(i));
        }
        return ids;
    }

    static std::vector<std::string> InOrder(const std::vector<KafkaCluster::Record>& records) {
        std::vector<std::string> ids;
        for (const KafkaCluster::Record& record : records) {
            ids.push_back(record.m_id);
        }
        return ids;
    }
    static std::vector<std::string> Sequence(int begin, int end) {
        std::vector<std::string> ids;
        for (int i = begin; i < end; ++i) {
            ids.push_back(std::to_string(i));
        }
        return ids;
    }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
    std::optional<KafkaCluster> m_cluster;
    std::string m_why;
};

TEST_F(Kafka, GetsEachAlarmWithHostAndMachineAsItsKeyAndItsIdAsAHeader) {
    const auto writer = OpenReady();
    EXPECT_EQ(writer->Name(), "kafka");
    ASSERT_EQ(writer->Write({Alarm("a", "vm-01"), Alarm("b", "vm-02")}, m_why), 2U) << m_why;
    const auto records = m_cluster->Read(2);
    ASSERT_EQ(records.size(), 2U);
    for (const KafkaCluster::Record& record : records) {
        const bool first = record.m_id == "a";
        EXPECT_EQ(record.m_key, Poco::Environment::nodeName() + (first ? "/vm-01" : "/vm-02"));
        EXPECT_EQ(record.m_value, first ? "text of a" : "text of b");
    }
}

TEST_F(Kafka, KeepsTheAlarmsOfOneMachineInOrder) {
    const auto writer = OpenReady();
    ASSERT_EQ(writer->Write(Alarms(0, 100), m_why), 100U) << m_why;
    const auto records = m_cluster->Read(100);
    ASSERT_EQ(records.size(), 100U);
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].m_id, std::to_string(i));
    }
}

TEST_F(Kafka, TakesADocumentThatIsNotAnAlarm) {
    const auto writer = OpenReady();
    ASSERT_EQ(writer->Write({{"no JSON", "no JSON"}}, m_why), 1U) << m_why;
    const auto records = m_cluster->Read(1);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].m_key, Poco::Environment::nodeName() + '/');
    EXPECT_EQ(records[0].m_id, "");
}

TEST_F(Kafka, SendsNothingTwiceThatItIsGivenAgainForWantOfWord) {
    m_cluster->Stop();
    const auto writer = Open();
    const auto alarms = Alarms(0, 10);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(writer->Write(alarms, m_why), 0U);
        ASSERT_TRUE(writer->ShouldRetry());
        EXPECT_NE(m_why, "");
    }
    m_cluster->Start();
    std::size_t arrived = 0;
    ASSERT_TRUE(WaitUntil([&] {
        arrived += writer->Write(
            {alarms.begin() + static_cast<std::ptrdiff_t>(arrived), alarms.end()}, m_why);
        return arrived == alarms.size();
    }));
    EXPECT_EQ(Ids(m_cluster->Read(10)), Numbers(0, 10));
}

TEST_F(Kafka, SendsAgainWhatABrokerRefusesForNow) {
    const auto writer = Open();
    ASSERT_TRUE(writer->Prepare(m_why)) << m_why;
    m_cluster->RefuseProduce(RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED);
    const auto alarms = Alarms(0, 1);
    ASSERT_EQ(writer->Write(alarms, m_why), 0U);
    EXPECT_TRUE(writer->ShouldRetry());
    EXPECT_NE(m_why.find("Topic authorization failed"), std::string::npos) << m_why;
    ASSERT_TRUE(WaitUntil([&] { return writer->Write(alarms, m_why) == 1; })) << m_why;
    EXPECT_EQ(Ids(m_cluster->Read(1)), Numbers(0, 1));
}

TEST_F(Kafka, GivesUpOnlyAnAlarmThatTheBrokersNeverTake) {
    const auto writer = OpenReady({{"message.max.bytes", "2000"}});
    auto alarms = Alarms(0, 3);
    alarms[1].m_text = std::string(5000, 'x');
    EXPECT_EQ(writer->Write(alarms, m_why), 1U);
    EXPECT_FALSE(writer->ShouldRetry());
    EXPECT_TRUE(writer->CanBeProbed());
    EXPECT_NE(m_why.find("size too large"), std::string::npos) << m_why;
    ASSERT_EQ(writer->Write({alarms[2]}, m_why), 1U) << m_why;
    EXPECT_EQ(Ids(m_cluster->Read(2)), (std::multiset<std::string>{"0", "2"}));
}

TEST_F(Kafka, GetsOneByOneAndInOrderTheAlarmsOfARequestThatABrokerRefuses) {
    const auto writer = OpenReady();
    int begin = 0;
    for (const int error :
         {RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE, RD_KAFKA_RESP_ERR_INVALID_RECORD}) {
        m_cluster->RefuseProduce(error);
        ASSERT_EQ(writer->Write(Alarms(begin, begin + 20), m_why), 20U) << m_why;
        begin += 20;
    }
    EXPECT_EQ(InOrder(m_cluster->Read(40)), Sequence(0, 40));
}

TEST_F(Kafka, LosesNoneOfManyMachinesWhenABrokerRefusesARequest) {
    const auto writer = OpenReady();
    std::vector<OutgoingAlarm> alarms;
    for (int i = 0; i < 60; ++i) {
        alarms.push_back(Alarm(std::to_string(i), "vm-" + std::to_string(i % 12)));
    }
    m_cluster->RefuseProduce(RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE, 2);
    ASSERT_EQ(writer->Write(alarms, m_why), 60U) << m_why;
    const auto records = m_cluster->Read(60);
    EXPECT_EQ(Ids(records), Numbers(0, 60));
    std::map<std::string, int> last;
    for (const KafkaCluster::Record& record : records) {
        const int number = std::stoi(record.m_id);
        EXPECT_LT(last.try_emplace(record.m_key, -1).first->second, number) << record.m_key;
        last[record.m_key] = number;
    }
}

TEST_F(Kafka, GetsNothingBeforeWhatABrokerHasRefusedOfTheSameMachine) {
    const auto writer = OpenReady({{"batch.num.messages", "5"}});
    m_cluster->RefuseProduce(RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE);
    ASSERT_EQ(writer->Write(Alarms(0, 50), m_why), 50U) << m_why;
    EXPECT_EQ(InOrder(m_cluster->Read(50)), Sequence(0, 50));
}

TEST_F(Kafka, GivesUpOnlyWhatABrokerRefusesAlone) {
    const int refusal = RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE;
    const auto writer = OpenReady();
    const auto alarms = Alarms(0, 10);
    m_cluster->AnswerProduce({refusal, 0, 0, refusal});  // of all, and of the third
    ASSERT_EQ(writer->Write(alarms, m_why), 2U);
    EXPECT_FALSE(writer->ShouldRetry());
    EXPECT_NE(m_why.find("Message size too large"), std::string::npos) << m_why;
    ASSERT_EQ(writer->Write({alarms.begin() + 3, alarms.end()}, m_why), 7U) << m_why;

    m_cluster->RefuseProduce(refusal);  // what is sent together again
    ASSERT_EQ(writer->Write(Alarms(10, 15), m_why), 5U) << m_why;
    auto expected = Sequence(0, 15);
    expected.erase(expected.begin() + 2);
    EXPECT_EQ(InOrder(m_cluster->Read(14)), expected);
}

TEST_F(Kafka, GetsAllFromANewClientWhenTheOldOneIsBroken) {
    const auto writer = OpenReady();
    ASSERT_EQ(writer->Write(Alarms(0, 1), m_why), 1U) << m_why;
    // Ends an idempotent producer for good.
    m_cluster->RefuseProduce(RD_KAFKA_RESP_ERR_OUT_OF_ORDER_SEQUENCE_NUMBER);
    const auto alarms = Alarms(1, 2);
    ASSERT_TRUE(WaitUntil([&] { return writer->Write(alarms, m_why) == 1; })) << m_why;
    EXPECT_TRUE(m_log.Contains("Kafka client begins anew, 1 alarms may arrive twice"));
    EXPECT_EQ(Ids(m_cluster->Read(2)), Numbers(0, 2));
}

TEST_F(Kafka, GetsAllFromANewClientWhenTheOldOneBrokeBeforeItHadAnyAlarm) {
    // As it is while the right to write idempotently is missing.
    m_cluster->RefuseProducerId(RD_KAFKA_RESP_ERR_CLUSTER_AUTHORIZATION_FAILED, 2);
    const auto writer = Open();
    ASSERT_TRUE(WaitUntil([&] { return m_log.Contains("Fatal error"); }));
    const auto alarms = Alarms(0, 3);
    std::string trouble;
    ASSERT_TRUE(WaitUntil([&] {
        const std::size_t arrived = writer->Write(alarms, m_why);
        trouble += m_why;
        return arrived == alarms.size();
    })) << m_why;
    EXPECT_NE(trouble.find("Cluster authorization failed"), std::string::npos) << trouble;
    EXPECT_EQ(Ids(m_cluster->Read(3)), Numbers(0, 3)) << "each once";
    EXPECT_FALSE(m_log.Contains("may arrive twice"));
}

TEST_F(Kafka, IsInTroubleWhenItsClientBreaksAlsoWithoutAnAlarm) {
    m_cluster->RefuseProducerId(RD_KAFKA_RESP_ERR_CLUSTER_AUTHORIZATION_FAILED);
    const auto writer = Open();
    ASSERT_TRUE(WaitUntil([&] { return m_log.Contains("Fatal error"); }));
    EXPECT_FALSE(writer->Prepare(m_why));
    EXPECT_NE(m_why.find("Cluster authorization failed"), std::string::npos) << m_why;
    EXPECT_TRUE(WaitUntil([&] { return writer->Prepare(m_why); })) << m_why;
}

TEST_F(Kafka, IsAskedBeforeAnAlarmNeedsIt) {
    m_cluster->Stop();
    const auto writer = Open();
    EXPECT_FALSE(writer->Prepare(m_why));
    EXPECT_NE(m_why, "");
    m_cluster->Start();
    EXPECT_TRUE(WaitUntil([&] { return writer->Prepare(m_why); })) << m_why;
}

TEST_F(Kafka, IsInTroubleThatNamesATopicWithTroubleOfItsOwn) {
    const auto writer = Open();
    for (const auto& [error, text] :
         {std::pair{RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED, "Topic authorization failed"},
          std::pair{RD_KAFKA_RESP_ERR_UNKNOWN_TOPIC_OR_PART, "Unknown topic or partition"},
          std::pair{RD_KAFKA_RESP_ERR_LEADER_NOT_AVAILABLE, "Leader not available"}}) {
        m_cluster->SetTopicError(error);
        EXPECT_FALSE(writer->Prepare(m_why)) << text;
        EXPECT_EQ(m_why, std::string("topic \"alarms\": Broker: ") + text);
        m_cluster->SetTopicError(RD_KAFKA_RESP_ERR_NO_ERROR);
        EXPECT_TRUE(writer->Prepare(m_why)) << m_why;
    }
}

TEST_F(Kafka, MayMakeItsTopicWhenItIsAskedForIt) {
    const auto writer = KafkaWriter::Open({m_cluster->Brokers(), "another", {}}, m_why);
    EXPECT_TRUE(writer->Prepare(m_why)) << m_why;
}

TEST_F(Kafka, GetsAlarmsWhenTheTroubleOfItsTopicIsOver) {
    m_cluster->SetTopicError(RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED);
    const auto writer = Open();
    EXPECT_FALSE(writer->Prepare(m_why));
    const auto alarms = Alarms(0, 3);
    EXPECT_EQ(writer->Write(alarms, m_why), 0U);
    EXPECT_TRUE(writer->ShouldRetry());
    EXPECT_NE(m_why.find("opic authorization failed"), std::string::npos) << m_why;
    m_cluster->SetTopicError(RD_KAFKA_RESP_ERR_NO_ERROR);
    ASSERT_TRUE(WaitUntil([&] { return writer->Write(alarms, m_why) == alarms.size(); })) << m_why;
    EXPECT_EQ(InOrder(m_cluster->Read(3)), Sequence(0, 3));
}

TEST_F(Kafka, GetsAllOnceThatCameWhileItWasAway) {
    const auto sink = Sink(100);
    for (int i = 0; i < 50; ++i) {
        sink->Offer(Alarm(std::to_string(i)).m_document);
    }
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 50; }));
    m_cluster->Stop();
    for (int i = 50; i < 400; ++i) {
        ASSERT_TRUE(WaitUntil(
            [&] { return BooksOf(*sink).m_waiting < 90 || !sink->GetLedger().m_trouble.empty(); }));
        ASSERT_TRUE(WaitUntil([&] { return sink->Offer(Alarm(std::to_string(i)).m_document); }));
    }
    ASSERT_TRUE(WaitUntil([&] { return !sink->GetLedger().m_trouble.empty(); }));
    m_cluster->Start();
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 400; }, std::chrono::seconds(30)));
    EXPECT_EQ(Ids(m_cluster->Read(400)), Numbers(0, 400));
    EXPECT_TRUE(WaitUntil([&] { return sink->GetLedger().m_trouble.empty(); }));
}

TEST_F(Kafka, GetsFromTheNextAgentWhatThisOneCouldNotDeliver) {
    m_cluster->Stop();
    {
        const auto sink = Sink();
        for (int i = 0; i < 20; ++i) {
            sink->Offer(Alarm(std::to_string(i)).m_document);
        }
        sink->Stop();
        EXPECT_EQ(BooksOf(*sink).Lost(), 0U);
        EXPECT_EQ(BooksOf(*sink).m_waiting, 20U);
    }
    m_cluster->Start();
    const auto sink = Sink();
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 20; }, std::chrono::seconds(30)));
    EXPECT_EQ(Ids(m_cluster->Read(20)), Numbers(0, 20));
}

TEST_F(Kafka, DoesNotHoldUpTheStopForBrokersThatAreAway) {
    m_cluster->Stop();
    const auto sink = Sink();
    sink->Offer(Alarm("1").m_document);
    const auto start = std::chrono::steady_clock::now();
    sink->Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(Kafka, RefusesAPropertyThatTheClientDoesNotKnowWithoutShowingItsValue) {
    EXPECT_EQ(KafkaWriter::Open({"127.0.0.1:1", kTopic, {{"no.such.thing", "secret"}}}, m_why),
              nullptr);
    EXPECT_EQ(m_why, "property \"no.such.thing\" or its value is not understood");
    EXPECT_EQ(KafkaWriter::Open({"127.0.0.1:1", kTopic, {{"security.protocol", "secret"}}}, m_why),
              nullptr);
    EXPECT_EQ(m_why, "property \"security.protocol\" or its value is not understood");
}

}  // namespace
