#pragma once

#include "AlarmWriter.h"
#include "outputs/KafkaSettings.h"

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
/// What the client has at a time makes one request for each partition, and nothing follows before
/// there is word of all of it: so what the brokers do not take is not overtaken by what comes
/// later. They refuse requests, not alarms, so only what was refused alone is given up. All alarms
/// of a refused request are sent again one at a time.
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

    /// Goes on as long as there is word of alarms, for which it waits a second at the most. Those
    /// that there was none of are with the client until there is.
    std::size_t Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) override;

    bool ShouldRetry() const override { return m_retry; }
    bool CanBeProbed() const override { return true; }

private:
    enum class State {
        WAITING,   // the client does not have it, nor do the brokers
        SENT,      // the client has it
        ARRIVED,   // the brokers have it
        RETURNED,  // the client does not have it; whether the brokers do is not known
        REFUSED    // the brokers will never take it
    };
    struct Given {
        State m_state = State::WAITING;
        bool m_alone = false;  // it was refused with others, so it is sent without any
    };

    struct Destroy {
        void operator()(rd_kafka_s* client) const;
    };

    explicit KafkaWriter(const KafkaSettings& settings);

    bool Connect(std::string& why);
    rd_kafka_conf_s* MakeConfiguration(std::string& why);
    bool AskForTopic(std::string& why);
    bool IsBroken();
    void ReplaceClient();
    void NoteLimits(const rd_kafka_conf_s* configuration);
    void SendNext(const std::vector<OutgoingAlarm>& alarms);
    std::size_t EndOfRequest(const std::vector<OutgoingAlarm>& alarms, std::size_t begin) const;
    bool Send(const OutgoingAlarm& alarm, Given& given);
    void WaitForWord();
    bool HasWordOfAll() const;
    std::size_t CountWords() const;
    std::size_t TakeArrived();
    void NoteReport(const rd_kafka_message_s& message);

    const KafkaSettings m_settings;
    const std::string m_host;

    // Of the alarms that the sink has given and has not been told of, oldest first. It gives them
    // again, first and in this order, until it is. Each message carries the address of its own.
    std::deque<Given> m_given;
    std::size_t m_requestBytes = 0;   // the most that the client puts into one request
    std::size_t m_requestAlarms = 0;  // the same, counted
    std::string m_lastError;          // the client's newest
    bool m_retry = true;
    std::unique_ptr<rd_kafka_s, Destroy> m_client;  // reports to the others until it has ended
};

}  // namespace Engine
