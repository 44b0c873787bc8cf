#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>

namespace Engine {

/// An alarm's document while it is mapped to another format. The mapping takes the fields that the
/// format has a place for. The rest stays, for a place that the format leaves to its users, so that
/// nothing is lost. A field is taken only when it is what it should be: an empty text, another type
/// or a number out of its bounds stays in the rest.
///
/// A place is names with slashes between: "process_info/process_pid". A list is entered at its
/// first element. Own copy; one thread.
class AlarmFields {
public:
    /// The detection that an alarm tells of.
    enum class Detection { COMMAND, FILE, PORT, OTHER };

    /// @param alarm  the document; one that is no object has no fields
    explicit AlarmFields(const Json::Value& alarm);

    Detection GetDetection() const { return m_detection; }

    /// What stands at a place, without taking it; nothing when it is not what it should be.
    /// @param most  numbers are whole and between 0 and this
    std::optional<std::string> Text(const std::string& place) const;
    std::optional<std::int64_t> Number(const std::string& place, std::int64_t most) const;

    /// The same, and takes it.
    std::optional<std::string> TakeText(const std::string& place);
    std::optional<std::int64_t> TakeNumber(const std::string& place, std::int64_t most);

    /// Takes a text or number and puts it into a record, when it is there.
    /// @param target  a place in the record; objects on the way are made
    void MoveText(const std::string& place, Json::Value& record, const std::string& target);
    void MoveNumber(const std::string& place, std::int64_t most, Json::Value& record,
                    const std::string& target);

    /// Takes the alarm's id. A document without one gets an id that is made from its text, so that
    /// it is the same in all formats.
    std::string TakeId();

    /// Takes when it happened, in seconds since the epoch. Now, for a document that does not say.
    std::int64_t TakeTime();

    /// Takes the port that a port alarm tells of, which the document holds as a text.
    std::optional<int> TakePort();

    /// What was not taken; objects and lists that became empty by taking are gone.
    const Json::Value& Rest() const { return m_rest; }

private:
    void Remove(const std::string& place);

    const std::string m_ownId;  // for a document without one
    Json::Value m_rest;
    const Detection m_detection;
};

/// Puts a value at a place in a record; objects on the way are made.
void SetAt(Json::Value& record, const std::string& place, const Json::Value& value);

}  // namespace Engine
