#pragma once

#include "AlarmWriter.h"
#include "KafkaSettings.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

struct rd_kafka_s;
struct rd_kafka_conf_s;
struct rd_kafka_message_s;

namespace Engine {

/// Hands alarms to Kafka: each is a message whose key is HOST/VM, so that those of one machine stay
/// in order, with the alarm's event_id as its header "id". An alarm counts as written when the
/// brokers say that they have it.
///
/// The producer is idempotent: what it sends again after a broken connection arrives once all the
/// same. It never gives up an alarm by itself, so that "sent, but no word of it" is no state in
/// which one is sent by two producers; only the end of the agent is. Readers that must be sure to
/// see each alarm once compare ids.
///
/// Threads: one; the client's own threads call nothing here but the log.
class KafkaWriter : public AlarmWriter {
public:
    /// @param why  set when the client does not take the settings
    /// @return null then
    static std::unique_ptr<KafkaWriter> Open(const KafkaSettings& settings, std::string& why);

    ~KafkaWriter() override;

    /// Asks the brokers for the topic, for a second at the most.
    bool Prepare(std::string& why) override;

    std::size_t BatchSize() const override { return 500; }

    /// Waits for word of the alarms for a second at the most. Those that there was none of are with
    /// the client until there is.
    std::size_t Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) override;

    bool ShouldRetry() const override { return m_retry; }

private:
    enum class State {
        WAITING,   // the client does not have it, nor do the brokers
        SENT,      // the client has it
        ARRIVED,   // the brokers have it
        RETURNED,  // the client does not have it; whether the brokers do is not known
        REFUSED    // the brokers will never take it
    };

    struct Destroy {
        void operator()(rd_kafka_s* client) const;
    };

    explicit KafkaWriter(const KafkaSettings& settings);

    bool Connect(std::string& why);
    rd_kafka_conf_s* MakeConfiguration(std::string& why);
    bool IsBroken();
    void ReplaceClient();
    void SendFrom(const std::vector<OutgoingAlarm>& alarms);
    bool Send(const OutgoingAlarm& alarm, State& state);
    void WaitForWord();
    bool HasWordOfAll() const;
    std::size_t TakeArrived();
    void NoteReport(const rd_kafka_message_s& message);

    const KafkaSettings m_settings;
    const std::string m_host;

    // Of the alarms that the client was given and the sink has not been told of, oldest first. The
    // sink gives them again, first and in this order, until it is. Each message carries the address
    // of its own.
    std::deque<State> m_given;
    std::string m_lastError;  // the client's newest
    bool m_retry = true;
    std::unique_ptr<rd_kafka_s, Destroy> m_client;  // reports to the others until it has ended
};

}  // namespace Engine
