#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct rd_kafka_s;
struct rd_kafka_mock_cluster_s;

namespace TestSupport {

/// Kafka brokers of a test, in its own process: the test cluster that comes with the client
/// library.
class KafkaCluster {
public:
    /// Why there can be none in this build; empty when there can. ThreadSanitizer does not notice
    /// the threads of the C11 library (threads.h) that the client starts, and ends the program.
    static std::string Missing();

    /// Three brokers and a topic of four partitions.
    explicit KafkaCluster(const std::string& topic);
    ~KafkaCluster();
    KafkaCluster(const KafkaCluster&) = delete;
    KafkaCluster& operator=(const KafkaCluster&) = delete;

    /// HOST:PORT of each broker, with commas.
    std::string Brokers() const;

    /// Closes the brokers' doors, and opens them again. What they have they keep.
    void Stop();
    void Start();

    /// Tells whoever asks for the topic of an error; 0 ends that.
    void SetTopicError(int error);

    /// Answers the next requests to produce with an error of Kafka's.
    void RefuseProduce(int error, int times = 1);

    /// Answers the next requests to produce with one error of Kafka's each; 0 is none.
    void AnswerProduce(const std::vector<int>& errors);

    /// Refuses requests of a producer to be told its id.
    void RefuseProducerId(int error, int times = 1);

    struct Record {
        std::string m_key;
        std::string m_value;
        std::string m_id;  ///< the header "id"
    };

    /// All records of the topic, those of one partition in their order.
    /// @param count    how many are expected; more are waited for as long as some come
    /// @param patience for the expected ones
    std::vector<Record> Read(std::size_t count,
                             std::chrono::seconds patience = std::chrono::seconds(20)) const;

private:
    struct DestroyClient {
        void operator()(rd_kafka_s* client) const;
    };
    using Client = std::unique_ptr<rd_kafka_s, DestroyClient>;

    void Answer(std::int16_t request, const std::vector<int>& errors);
    Client MakeReader() const;

    const std::string m_topic;
    Client m_host;
    rd_kafka_mock_cluster_s* m_cluster;
};

}  // namespace TestSupport
