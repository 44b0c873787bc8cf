#include "outputs/KafkaWriter.h"

#include "DataCommLog.h"
#include "sdk/JsonUtils.h"

#include <Poco/Environment.h>
#include <Poco/Format.h>

#include <librdkafka/rdkafka.h>

#include <sys/syslog.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace Engine {

namespace {

// How long one look for word of what was sent lasts, and one question for the topic.
constexpr std::chrono::milliseconds kPatience{1000};
constexpr std::chrono::milliseconds kSlice{50};

// How long one try goes on while there is word. Meanwhile nothing new is put on disk.
constexpr std::chrono::milliseconds kLongestTry{2000};

// For the client's threads to end in.
constexpr int kEndMs = 500;

constexpr std::size_t kErrorText = 512;

// More than a request has beside its alarms, and each alarm beside its text and the host's name.
constexpr std::size_t kRequestExtra = 512;
constexpr std::size_t kAlarmExtra = 512;

/// What differs from the client's own defaults; the operator's properties stand above it.
constexpr std::pair<const char*, const char*> kProperties[] = {
    {"client.id", "vmescape-agent"},
    {"enable.idempotence", "true"},
    // An alarm is never given up by the client: whether it had arrived would not be known.
    {"message.timeout.ms", "0"},
    // Longer than it takes to give the client what shall travel together. Nothing waits so long, as
    // the client is flushed then.
    {"linger.ms", "1000"},
    // Brokers that come back are found within seconds.
    {"reconnect.backoff.max.ms", "2000"},
    // Brokers close what lies idle, which is no trouble.
    {"log.connection.close", "false"},
};

/// Errors that stay whatever is tried: the request itself is wrong, or a message in it.
bool IsRefusal(rd_kafka_resp_err_t error) {
    return error == RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE ||
           error == RD_KAFKA_RESP_ERR_INVALID_MSG_SIZE || error == RD_KAFKA_RESP_ERR_INVALID_RECORD;
}

/// The client tells of trouble, too, in the messages for which there is no word; its own lines,
/// which it repeats, are for those who look closely.
void LogLine(const rd_kafka_t* /*client*/, int level, const char* facility, const char* text) {
    SDK::Log(GetDataCommLogger(),
             level <= LOG_CRIT ? Poco::Message::PRIO_WARNING : Poco::Message::PRIO_DEBUG,
             "Kafka client: %s: %s", std::string(facility), std::string(text));
}

/// The client copies what it is given; its C interface knows no const.
void* Bytes(const std::string& text) { return const_cast<char*>(text.data()); }

std::string Member(const Json::Value& object, const char* key) {
    return SDK::JsonUtils::GetStringValue(object, key, "");
}

/// A property of the client that is a number.
std::size_t Number(const rd_kafka_conf_t* configuration, const char* name) {
    std::array<char, kErrorText> text{};
    std::size_t size = text.size();
    rd_kafka_conf_get(configuration, name, text.data(), &size);
    std::size_t number = 0;
    std::from_chars(text.data(), text.data() + std::min(size, text.size()), number);
    return number;
}

struct TopicAnswer {
    rd_kafka_resp_err_t m_failure = RD_KAFKA_RESP_ERR_NO_ERROR;  // why there is no answer
    rd_kafka_resp_err_t m_trouble = RD_KAFKA_RESP_ERR_NO_ERROR;  // of the topic
};

TopicAnswer GetTopic(rd_kafka_t* client, const std::string& name,
                     std::chrono::steady_clock::duration patience) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(patience).count();
    rd_kafka_topic_t* topic = rd_kafka_topic_new(client, name.c_str(), nullptr);
    const rd_kafka_metadata_t* metadata = nullptr;
    TopicAnswer answer;
    answer.m_failure =
        rd_kafka_metadata(client, 0, topic, &metadata, static_cast<int>(std::max(ms, 1L)));
    if (answer.m_failure == RD_KAFKA_RESP_ERR_NO_ERROR) {
        // That the brokers answered does not say that there is such a topic.
        answer.m_trouble = metadata->topic_cnt > 0 ? metadata->topics[0].err
                                                   : RD_KAFKA_RESP_ERR_UNKNOWN_TOPIC_OR_PART;
        rd_kafka_metadata_destroy(metadata);
    }
    rd_kafka_topic_destroy(topic);
    return answer;
}

/// What brokers say of a topic that they are making, older ones the first, newer ones the second.
bool MayPass(rd_kafka_resp_err_t trouble) {
    return trouble == RD_KAFKA_RESP_ERR_LEADER_NOT_AVAILABLE ||
           trouble == RD_KAFKA_RESP_ERR_UNKNOWN_TOPIC_OR_PART;
}

}  // namespace

void KafkaWriter::Destroy::operator()(rd_kafka_s* client) const {
    rd_kafka_flush(client, kEndMs);
    rd_kafka_purge(client, RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT);
    rd_kafka_poll(client, 0);  // the reports of what was purged
    rd_kafka_destroy(client);
}

std::unique_ptr<KafkaWriter> KafkaWriter::Open(const KafkaSettings& settings, std::string& why) {
    std::unique_ptr<KafkaWriter> writer(new KafkaWriter(settings));
    return writer->Connect(why) ? std::move(writer) : nullptr;
}

KafkaWriter::KafkaWriter(const KafkaSettings& settings)
    : AlarmWriter("kafka"), m_settings(settings), m_host(Poco::Environment::nodeName()) {}

KafkaWriter::~KafkaWriter() = default;

/// Makes a client, which connects by itself, now and whenever it must.
bool KafkaWriter::Connect(std::string& why) {
    rd_kafka_conf_t* configuration = MakeConfiguration(why);
    if (configuration == nullptr) {
        return false;
    }
    std::array<char, kErrorText> text{};
    m_client.reset(rd_kafka_new(RD_KAFKA_PRODUCER, configuration, text.data(), text.size()));
    if (m_client == nullptr) {
        rd_kafka_conf_destroy(configuration);
        why = text.data();
    }
    return m_client != nullptr;
}

rd_kafka_conf_s* KafkaWriter::MakeConfiguration(std::string& why) {
    rd_kafka_conf_t* configuration = rd_kafka_conf_new();
    std::vector<std::pair<std::string, std::string>> properties(std::begin(kProperties),
                                                                std::end(kProperties));
    properties.emplace_back("bootstrap.servers", m_settings.m_brokers);
    properties.insert(properties.end(), m_settings.m_properties.begin(),
                      m_settings.m_properties.end());
    for (const auto& [name, value] : properties) {
        std::array<char, kErrorText> text{};
        if (rd_kafka_conf_set(configuration, name.c_str(), value.c_str(), text.data(),
                              text.size()) != RD_KAFKA_CONF_OK) {
            // The client's text would show the value, which may be a secret.
            why = Poco::format("property \"%s\" or its value is not understood", name);
            rd_kafka_conf_destroy(configuration);
            return nullptr;
        }
    }
    NoteLimits(configuration);
    rd_kafka_conf_set_opaque(configuration, this);
    rd_kafka_conf_set_log_cb(configuration, LogLine);
    rd_kafka_conf_set_error_cb(configuration,
                               [](rd_kafka_t*, int /*error*/, const char* reason, void* opaque) {
                                   static_cast<KafkaWriter*>(opaque)->m_lastError = reason;
                               });
    rd_kafka_conf_set_dr_msg_cb(
        configuration, [](rd_kafka_t* /*client*/, const rd_kafka_message_t* message, void* opaque) {
            static_cast<KafkaWriter*>(opaque)->NoteReport(*message);
        });
    return configuration;
}

void KafkaWriter::NoteLimits(const rd_kafka_conf_s* configuration) {
    m_requestBytes =
        std::min(Number(configuration, "batch.size"), Number(configuration, "message.max.bytes"));
    m_requestAlarms = Number(configuration, "batch.num.messages");
}

bool KafkaWriter::Prepare(std::string& why) {
    if (IsBroken()) {
        // Whether the next one is any better it has yet to show.
        why = m_lastError;
        ReplaceClient();
        return false;
    }
    return AskForTopic(why);
}

/// Asks for a second at the most: a topic that is made when it is asked for is there a little
/// later.
bool KafkaWriter::AskForTopic(std::string& why) {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + kPatience;
    TopicAnswer answer;
    do {
        answer = GetTopic(m_client.get(), m_settings.m_topic, end - steady_clock::now());
        // For what the client has to say, and as a pause.
        const bool again = MayPass(answer.m_trouble);
        rd_kafka_poll(m_client.get(), again ? static_cast<int>(kSlice.count()) : 0);
    } while (MayPass(answer.m_trouble) && steady_clock::now() < end && !DeadlinePassed());
    if (answer.m_failure != RD_KAFKA_RESP_ERR_NO_ERROR) {
        why = m_lastError.empty() ? rd_kafka_err2str(answer.m_failure) : m_lastError;
        return false;
    }
    if (answer.m_trouble != RD_KAFKA_RESP_ERR_NO_ERROR) {
        why = Poco::format("topic \"%s\": %s", m_settings.m_topic,
                           std::string(rd_kafka_err2str(answer.m_trouble)));
        m_lastError = why;  // what the next write waits for
        return false;
    }
    m_lastError.clear();
    return true;
}

std::size_t KafkaWriter::Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) {
    m_retry = true;
    if (IsBroken()) {
        ReplaceClient();
    }
    // What is known by then is settled, and what is not known is given again.
    const auto end = std::chrono::steady_clock::now() + kLongestTry;
    m_given.resize(std::max(m_given.size(), alarms.size()));
    std::size_t words = 0;
    do {
        SendNext(alarms);
        words = CountWords();
        WaitForWord();
    } while (CountWords() > words && HasWordOfAll() && std::chrono::steady_clock::now() < end &&
             !DeadlinePassed());
    const std::size_t arrived = TakeArrived();
    if (arrived == alarms.size()) {
        m_lastError.clear();
        return arrived;
    }
    why = m_lastError.empty() ? "the brokers do not answer" : m_lastError;
    if (!m_given.empty() && m_given.front().m_state == State::REFUSED) {
        m_retry = false;
        m_given.pop_front();
    }
    return arrived;
}

/// Asks the client itself: its callback comes only when it is polled, which is not done while it
/// has nothing, and a client that will never work again takes nothing.
bool KafkaWriter::IsBroken() {
    std::array<char, kErrorText> text{};
    if (m_client == nullptr) {
        return true;
    }
    if (rd_kafka_fatal_error(m_client.get(), text.data(), text.size()) ==
        RD_KAFKA_RESP_ERR_NO_ERROR) {
        return false;
    }
    m_lastError = text.data();
    return true;
}

/// After an error that ends a client for good another takes over what there is no word of.
void KafkaWriter::ReplaceClient() {
    const std::string why = m_lastError;
    m_client.reset();  // its last reports come while it ends
    unsigned long doubtful = 0;
    for (Given& given : m_given) {
        given.m_state = given.m_state == State::SENT ? State::RETURNED : given.m_state;
        doubtful += given.m_state == State::RETURNED ? 1 : 0;
    }
    if (doubtful > 0) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Kafka client begins anew, %lu alarms may arrive twice: %s", doubtful, why);
    } else {
        // The trouble of the output says enough, and each try would say it again.
        SDK::Log(GetDataCommLogger(), Poco::Message::PRIO_DEBUG, "Kafka client begins anew: %s",
                 why);
    }
    m_lastError = why;
    Connect(m_lastError);
}

/// Gives the client the next alarms that there is no word of, once there is of all before.
void KafkaWriter::SendNext(const std::vector<OutgoingAlarm>& alarms) {
    if (m_client == nullptr || !HasWordOfAll()) {
        return;
    }
    const auto next = std::find_if(m_given.begin(), m_given.end(), [](const Given& given) {
        return given.m_state != State::ARRIVED;
    });
    const auto begin = static_cast<std::size_t>(next - m_given.begin());
    const std::size_t end = EndOfRequest(alarms, begin);
    if (end == begin + 1) {
        next->m_alone = true;
    }
    for (std::size_t i = begin; i < end; ++i) {
        const State state = m_given[i].m_state;
        const bool open = state == State::WAITING || state == State::RETURNED;
        if (open && !Send(alarms[i], m_given[i])) {
            return;  // there is no room now
        }
    }
}

/// @param begin  the first alarm of those that shall travel together
/// @return the one behind the last of them
std::size_t KafkaWriter::EndOfRequest(const std::vector<OutgoingAlarm>& alarms,
                                      std::size_t begin) const {
    std::size_t bytes = kRequestExtra;
    std::size_t end = begin;
    for (; end < alarms.size() && m_given[end].m_state != State::REFUSED; ++end) {
        bytes += alarms[end].m_text.size() + m_host.size() + kAlarmExtra;
        const bool fits = bytes <= m_requestBytes && end - begin < m_requestAlarms;
        const bool together = !m_given[begin].m_alone && !m_given[end].m_alone;
        if (end > begin && !(fits && together)) {
            break;
        }
    }
    return end;
}

/// @return false when the client does not take it now
bool KafkaWriter::Send(const OutgoingAlarm& alarm, Given& given) {
    Json::Value document;
    SDK::JsonUtils::ParseJsonStr(alarm.m_document.c_str(), alarm.m_document.length(), document);
    Json::Value resource;
    SDK::JsonUtils::GetSubobjectValue(document, "resource_info", resource);
    const std::string key = m_host + '/' + Member(resource, "vm_name");
    const std::string id = Member(document, "event_id");
    std::array<rd_kafka_vu_t, 6> fields{};
    fields[0] = {RD_KAFKA_VTYPE_TOPIC, {.cstr = m_settings.m_topic.c_str()}};
    fields[1] = {RD_KAFKA_VTYPE_MSGFLAGS, {.i = RD_KAFKA_MSG_F_COPY}};
    fields[2] = {RD_KAFKA_VTYPE_KEY, {.mem = {Bytes(key), key.size()}}};
    fields[3] = {RD_KAFKA_VTYPE_VALUE, {.mem = {Bytes(alarm.m_text), alarm.m_text.size()}}};
    // A list of its own, not RD_KAFKA_VTYPE_HEADER: librdkafka 2.0.2 frees the header twice when
    // it refuses a message for the state of its topic.
    rd_kafka_headers_t* headers = rd_kafka_headers_new(1);
    rd_kafka_header_add(headers, "id", -1, id.data(), static_cast<ssize_t>(id.size()));
    fields[4] = {RD_KAFKA_VTYPE_HEADERS, {.headers = headers}};
    fields[5] = {RD_KAFKA_VTYPE_OPAQUE, {.ptr = &given}};
    const std::unique_ptr<rd_kafka_error_t, decltype(&rd_kafka_error_destroy)> failure(
        rd_kafka_produceva(m_client.get(), fields.data(), fields.size()), rd_kafka_error_destroy);
    const rd_kafka_resp_err_t error =
        failure == nullptr ? RD_KAFKA_RESP_ERR_NO_ERROR : rd_kafka_error_code(failure.get());
    if (error == RD_KAFKA_RESP_ERR_NO_ERROR) {
        given.m_state = State::SENT;
        return true;
    }
    rd_kafka_headers_destroy(headers);  // which are the client's only when it took the message
    if (!IsBroken()) {
        m_lastError = rd_kafka_err2str(error);
    }
    // What the client itself refuses is this one alone.
    given.m_state = IsRefusal(error) ? State::REFUSED : given.m_state;
    return given.m_state == State::REFUSED;
}

void KafkaWriter::WaitForWord() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!IsBroken() && !HasWordOfAll() && std::chrono::steady_clock::now() < end &&
           !DeadlinePassed()) {
        rd_kafka_flush(m_client.get(), static_cast<int>(kSlice.count()));
    }
}

bool KafkaWriter::HasWordOfAll() const {
    return std::none_of(m_given.begin(), m_given.end(),
                        [](const Given& given) { return given.m_state == State::SENT; });
}

/// How much is known; a word after which the alarm has to be tried as before is none.
std::size_t KafkaWriter::CountWords() const {
    std::size_t count = 0;
    for (const Given& given : m_given) {
        const bool final = given.m_state == State::ARRIVED || given.m_state == State::REFUSED;
        count += (final ? 1 : 0) + (given.m_alone ? 1 : 0);
    }
    return count;
}

std::size_t KafkaWriter::TakeArrived() {
    std::size_t count = 0;
    for (; !m_given.empty() && m_given.front().m_state == State::ARRIVED; ++count) {
        m_given.pop_front();
    }
    return count;
}

void KafkaWriter::NoteReport(const rd_kafka_message_s& message) {
    Given& given = *static_cast<Given*>(message._private);
    if (message.err == RD_KAFKA_RESP_ERR_NO_ERROR) {
        given.m_state = State::ARRIVED;
        return;
    }
    if (IsRefusal(message.err) && given.m_alone) {
        given.m_state = State::REFUSED;
    } else if (IsRefusal(message.err)) {
        given = {State::WAITING, true};
    } else {
        given.m_state = rd_kafka_message_status(&message) == RD_KAFKA_MSG_STATUS_NOT_PERSISTED
                            ? State::WAITING
                            : State::RETURNED;
    }
    m_lastError = rd_kafka_err2str(message.err);
}

}  // namespace Engine
