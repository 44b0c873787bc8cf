#include "support/KafkaCluster.h"

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <stdexcept>

namespace TestSupport {

namespace {

constexpr int kBrokers = 3;
constexpr int kPartitions = 4;

// The protocol's ApiKeys.
constexpr std::int16_t kProduceRequest = 0;
constexpr std::int16_t kInitProducerIdRequest = 22;

// Nothing more comes when nothing has come for this long.
constexpr int kQuietMs = 300;

}  // namespace

void KafkaCluster::DestroyClient::operator()(rd_kafka_s* client) const { rd_kafka_destroy(client); }

std::string KafkaCluster::Missing() {
#ifdef __SANITIZE_THREAD__
    return "ThreadSanitizer does not know the threads of the Kafka client";
#else
    return "";
#endif
}

KafkaCluster::KafkaCluster(const std::string& topic) : m_topic(topic) {
    m_host.reset(rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), nullptr, 0));
    m_cluster = m_host == nullptr ? nullptr : rd_kafka_mock_cluster_new(m_host.get(), kBrokers);
    if (m_cluster == nullptr) {
        throw std::runtime_error("no Kafka cluster");
    }
    rd_kafka_mock_topic_create(m_cluster, topic.c_str(), kPartitions, kBrokers);
}

KafkaCluster::~KafkaCluster() { rd_kafka_mock_cluster_destroy(m_cluster); }

std::string KafkaCluster::Brokers() const { return rd_kafka_mock_cluster_bootstraps(m_cluster); }

void KafkaCluster::Stop() {
    for (int broker = 1; broker <= kBrokers; ++broker) {
        rd_kafka_mock_broker_set_down(m_cluster, broker);
    }
}

void KafkaCluster::Start() {
    for (int broker = 1; broker <= kBrokers; ++broker) {
        rd_kafka_mock_broker_set_up(m_cluster, broker);
    }
}

void KafkaCluster::SetTopicError(int error) {
    rd_kafka_mock_topic_set_error(m_cluster, m_topic.c_str(),
                                  static_cast<rd_kafka_resp_err_t>(error));
}

void KafkaCluster::RefuseProduce(int error, int times) {
    AnswerProduce(std::vector<int>(static_cast<std::size_t>(times), error));
}

void KafkaCluster::AnswerProduce(const std::vector<int>& errors) {
    Answer(kProduceRequest, errors);
}

void KafkaCluster::RefuseProducerId(int error, int times) {
    Answer(kInitProducerIdRequest, std::vector<int>(static_cast<std::size_t>(times), error));
}

void KafkaCluster::Answer(std::int16_t request, const std::vector<int>& errors) {
    std::vector<rd_kafka_resp_err_t> answers;
    for (const int error : errors) {
        answers.push_back(static_cast<rd_kafka_resp_err_t>(error));
    }
    rd_kafka_mock_push_request_errors_array(m_cluster, request, answers.size(), answers.data());
}

KafkaCluster::Client KafkaCluster::MakeReader() const {
    rd_kafka_conf_t* configuration = rd_kafka_conf_new();
    rd_kafka_conf_set(configuration, "bootstrap.servers", Brokers().c_str(), nullptr, 0);
    rd_kafka_conf_set(configuration, "group.id", "reader", nullptr, 0);
    rd_kafka_conf_set(configuration, "enable.auto.commit", "false", nullptr, 0);
    Client reader(rd_kafka_new(RD_KAFKA_CONSUMER, configuration, nullptr, 0));
    rd_kafka_topic_partition_list_t* partitions = rd_kafka_topic_partition_list_new(kPartitions);
    for (int partition = 0; partition < kPartitions; ++partition) {
        rd_kafka_topic_partition_list_add(partitions, m_topic.c_str(), partition)->offset =
            RD_KAFKA_OFFSET_BEGINNING;
    }
    rd_kafka_assign(reader.get(), partitions);
    rd_kafka_topic_partition_list_destroy(partitions);
    return reader;
}

std::vector<KafkaCluster::Record> KafkaCluster::Read(std::size_t count,
                                                     std::chrono::seconds patience) const {
    const Client reader = MakeReader();
    std::vector<Record> records;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        rd_kafka_message_t* message = rd_kafka_consumer_poll(reader.get(), kQuietMs);
        if (message == nullptr) {
            if (records.size() >= count || std::chrono::steady_clock::now() >= deadline) {
                break;
            }
            continue;
        }
        if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
            Record record{{static_cast<const char*>(message->key), message->key_len},
                          {static_cast<const char*>(message->payload), message->len},
                          {}};
            rd_kafka_headers_t* headers = nullptr;
            const void* id = nullptr;
            std::size_t size = 0;
            if (rd_kafka_message_headers(message, &headers) == RD_KAFKA_RESP_ERR_NO_ERROR &&
                rd_kafka_header_get_last(headers, "id", &id, &size) == RD_KAFKA_RESP_ERR_NO_ERROR) {
                record.m_id.assign(static_cast<const char*>(id), size);
            }
            records.push_back(std::move(record));
        }
        rd_kafka_message_destroy(message);
    }
    rd_kafka_consumer_close(reader.get());
    return records;
}

}  // namespace TestSupport
