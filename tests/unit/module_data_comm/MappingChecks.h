#pragma once

#include "SampleAlarm.h"
#include "formats/HostIdentity.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>

#include <map>
#include <string>

/// What tests of mappings share.
inline const Engine::HostIdentity SAMPLE_HOST = {"host-01", "8f4b1c1e-3a0c-4f0e-9c0b-0d5f6f0f2a11",
                                                 "0.1.0"};

/// The values of a document that hold no others, by their places: "process_info/0/process_pid".
/// Empty objects and lists count as such values.
using JsonLeaves = std::map<std::string, Json::Value>;

inline void AddLeaves(const Json::Value& value, const std::string& place, JsonLeaves& leaves) {
    if ((!value.isObject() && !value.isArray()) || value.empty()) {
        leaves[place] = value;
        return;
    }
    for (auto child = value.begin(); child != value.end(); ++child) {
        const std::string name =
            value.isArray() ? std::to_string(child.index()) : std::string(child.name());
        AddLeaves(*child, place.empty() ? name : place + '/' + name, leaves);
    }
}

inline JsonLeaves LeavesOf(const Json::Value& document) {
    JsonLeaves leaves;
    AddLeaves(document, "", leaves);
    return leaves;
}

/// Where a format has a place for a field of the document; other fields stay where they are, below
/// the format's place for the rest.
using FieldPlaces = std::map<std::string, std::string>;

/// Expects every value of a document in its mapping, and nothing else below the rest.
/// @param expected  the document's values, in the form that the format gives them
inline void ExpectAllKept(const JsonLeaves& expected, const FieldPlaces& places,
                          const std::string& rest, const Json::Value& record) {
    JsonLeaves mapped = LeavesOf(record);
    for (const auto& [place, value] : expected) {
        const auto own = places.find(place);
        const std::string target = own == places.end() ? rest + '/' + place : own->second;
        ASSERT_EQ(mapped.count(target), 1U) << place << " is not at " << target;
        EXPECT_EQ(mapped[target], value) << place;
    }
    for (const auto& [place, value] : mapped) {
        if (place.rfind(rest + '/', 0) == 0) {
            EXPECT_EQ(expected.count(place.substr(rest.length() + 1)), 1U) << place;
        }
    }
}

/// Documents with everything at the wrong place, or of the wrong type or size.
inline std::vector<Json::Value> OddAlarms() {
    std::vector<Json::Value> alarms;
    for (const char* text : {
             R"({})",
             R"({"new":{"field":[1,2,{"x":null}]},"event_classid":"vmescape_0099"})",
             R"({"occur_time":"soon","event_id":7,"event_name":[],"severity":"high",)"
             R"("process_info":7,"resource_info":["x"],"forensic_info":"shell","file_info":{}})",
             R"({"occur_time":-1,"severity":-3,"confidence":-60,"event_count":1e300,)"
             R"("process_info":[{"process_pid":4294967296,"process_name":"sh"}]})",
             R"({"event_classid":"vmescape_0001","process_info":[[{"process_pid":1}],null]})",
             R"({"event_classid":"vmescape_0001","process_info":[{"process_name":"sh",)"
             R"("parent_process_name":"x"}],"forensic_info":{"escape_mode":3}})",
             R"({"event_classid":"vmescape_0002","file_info":[{"file_path":"","file_action":1}]})",
             R"({"event_classid":"vmescape_0003","forensic_info":{"abnormal_port":"70000"}})",
             R"({"event_classid":"vmescape_0003","forensic_info":{"abnormal_port":80}})",
         }) {
        alarms.push_back(ParseDocument(text));
    }
    return alarms;
}
