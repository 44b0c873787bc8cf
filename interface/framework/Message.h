#pragma once

#include <string>
#include <utility>

namespace Framework {

/// What one task sends to another. Once sent it is shared and read-only.
class Message {
public:
    /// @param type  the kind of message, as the receiver tells them apart ("procs_message")
    explicit Message(std::string type) : m_type(std::move(type)) {}
    virtual ~Message() = default;

    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    /// The kind of message.
    const std::string& GetMsgType() const { return m_type; }

private:
    const std::string m_type;
};

/// A text, or a request, on its way to the reporter.
class DataMessage : public Message {
public:
    /// The data type of an alarm document.
    static constexpr const char* ALARM = "2";

    /// The data type of a request to open all outputs anew: what is open may have been moved away.
    /// It has no text.
    static constexpr const char* REOPEN = "reopen";

    /// @param dataType  what the text is; "2" is an alarm
    /// @param data      the text, for an alarm one JSON document
    DataMessage(const std::string& dataType, const std::string& data)
        : Message("data_message"), m_dataType(dataType), m_data(data) {}

    const std::string& GetDataType() const { return m_dataType; }
    const std::string& GetData() const { return m_data; }

private:
    const std::string m_dataType;
    const std::string m_data;
};

}  // namespace Framework
