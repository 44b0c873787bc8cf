#include "formats/AlarmFields.h"

#include "SampleAlarm.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace {

using Engine::AlarmFields;

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();

AlarmFields FieldsOf(const std::string& text) { return AlarmFields(ParseDocument(text)); }

std::string RestOf(const AlarmFields& fields) {
    return SDK::JsonUtils::JsonToString(fields.Rest());
}

TEST(AlarmFields, TellTheDetection) {
    using Detection = AlarmFields::Detection;
    EXPECT_EQ(FieldsOf(COMMAND_DOCUMENT).GetDetection(), Detection::COMMAND);
    EXPECT_EQ(FieldsOf(FILE_DOCUMENT).GetDetection(), Detection::FILE);
    EXPECT_EQ(FieldsOf(PORT_DOCUMENT).GetDetection(), Detection::PORT);
    EXPECT_EQ(FieldsOf(R"({"event_classid":"vmescape_00011"})").GetDetection(), Detection::OTHER);
    EXPECT_EQ(FieldsOf("{}").GetDetection(), Detection::OTHER);
}

TEST(AlarmFields, StayInTheRestUntilTheyAreTaken) {
    AlarmFields fields = FieldsOf(R"({"a":"x","b":2})");
    EXPECT_EQ(fields.Text("a"), "x");
    EXPECT_EQ(fields.Number("b", kMost), 2);
    EXPECT_EQ(RestOf(fields), R"({"a":"x","b":2})");
    EXPECT_EQ(fields.TakeText("a"), "x");
    EXPECT_EQ(fields.TakeText("a"), std::nullopt);
    EXPECT_EQ(RestOf(fields), R"({"b":2})");
    EXPECT_EQ(fields.TakeNumber("b", kMost), 2);
    EXPECT_EQ(RestOf(fields), "{}");
}

TEST(AlarmFields, OfAListAreThoseOfItsFirstElement) {
    AlarmFields fields = FieldsOf(R"({"list":[{"a":"x","b":1},{"a":"y"}]})");
    EXPECT_EQ(fields.TakeText("list/a"), "x");
    EXPECT_EQ(fields.TakeNumber("list/b", kMost), 1);
    EXPECT_EQ(RestOf(fields), R"({"list":[{},{"a":"y"}]})");
    EXPECT_EQ(fields.TakeText("list/a"), std::nullopt);
}

TEST(AlarmFields, LeaveNothingEmptyBehind) {
    AlarmFields fields = FieldsOf(R"({"list":[{"o":{"a":"x"}}],"empty":{}})");
    EXPECT_EQ(fields.TakeText("list/o/a"), "x");
    EXPECT_EQ(RestOf(fields), R"({"empty":{}})");
}

TEST(AlarmFields, KeepWhatStandsBesideThem) {
    AlarmFields fields = FieldsOf(R"({"list":[{"a":"x"},null,[]],"o":{"a":"x","b":null}})");
    EXPECT_EQ(fields.TakeText("list/a"), "x");
    EXPECT_EQ(fields.TakeText("o/a"), "x");
    EXPECT_EQ(RestOf(fields), R"({"list":[{},null,[]],"o":{"b":null}})");
}

TEST(AlarmFields, OfAnotherTypeAreNotTaken) {
    const std::string text =
        R"({"bool":true,"list":[],"lists":[[{"a":"x"}]],"null":null,"object":{},"real":1.5})";
    AlarmFields fields = FieldsOf(text);
    for (const char* place : {"bool", "list", "lists", "null", "object", "real", "missing",
                              "real/a", "list/a", "lists/a", "object/a", "null/a", ""}) {
        EXPECT_EQ(fields.TakeText(place), std::nullopt) << place;
        EXPECT_EQ(fields.TakeNumber(place, kMost), std::nullopt) << place;
    }
    EXPECT_EQ(RestOf(fields), text);
}

TEST(AlarmFields, ThatAreEmptyTextsAreNotTaken) {
    AlarmFields fields = FieldsOf(R"({"a":""})");
    EXPECT_EQ(fields.TakeText("a"), std::nullopt);
    EXPECT_EQ(RestOf(fields), R"({"a":""})");
}

TEST(AlarmFields, AreTakenWithinTheirBounds) {
    AlarmFields fields =
        FieldsOf(R"({"huge":18446744073709551615,"below":-1,"least":0,"most":7,"above":8})");
    EXPECT_EQ(fields.TakeNumber("below", 7), std::nullopt);
    EXPECT_EQ(fields.TakeNumber("least", 7), 0);
    EXPECT_EQ(fields.TakeNumber("most", 7), 7);
    EXPECT_EQ(fields.TakeNumber("above", 7), std::nullopt);
    EXPECT_EQ(fields.TakeNumber("huge", kMost), std::nullopt);
    EXPECT_EQ(RestOf(fields), R"({"above":8,"below":-1,"huge":18446744073709551615})");
}

TEST(AlarmFields, AreMovedOnlyWhenTheyAreThere) {
    AlarmFields fields = FieldsOf(R"({"a":"x","n":1})");
    Json::Value record;
    fields.MoveText("missing", record, "o/p");
    fields.MoveNumber("a", kMost, record, "o/q");
    EXPECT_TRUE(record.isNull());
    fields.MoveText("a", record, "o/p");
    fields.MoveNumber("n", kMost, record, "o/q");
    EXPECT_EQ(SDK::JsonUtils::JsonToString(record), R"({"o":{"p":"x","q":1}})");
    EXPECT_EQ(RestOf(fields), "{}");
}

TEST(AlarmFields, HaveTheIdOfTheDocument) {
    AlarmFields fields = FieldsOf(R"({"event_id":"some id"})");
    EXPECT_EQ(fields.TakeId(), "some id");
    EXPECT_EQ(RestOf(fields), "{}");
}

TEST(AlarmFields, OfADocumentWithoutIdHaveOneOfTheirOwnThatIsAlwaysTheSame) {
    const std::string id = FieldsOf(R"({"a":1})").TakeId();
    EXPECT_EQ(id.length(), 36U);
    EXPECT_EQ(id[14], '5') << id;  // the version
    EXPECT_EQ(FieldsOf(R"({ "a" : 1 })").TakeId(), id);
    EXPECT_NE(FieldsOf(R"({"a":2})").TakeId(), id);
    EXPECT_NE(AlarmFields("a text").TakeId(), AlarmFields("another").TakeId());
    AlarmFields empty = FieldsOf(R"({"event_id":""})");
    EXPECT_EQ(empty.TakeId().length(), 36U);
    EXPECT_EQ(RestOf(empty), R"({"event_id":""})");
}

TEST(AlarmFields, TellWhenItHappened) {
    AlarmFields fields = FieldsOf(R"({"occur_time":253402300799})");
    EXPECT_EQ(fields.TakeTime(), 253402300799);
    EXPECT_EQ(RestOf(fields), "{}");
}

TEST(AlarmFields, WithoutATimeThatCanBeAreOfNow) {
    TestSupport::FakeClock clock;
    clock.Set(1700000000);
    for (const char* text : {"{}", R"({"occur_time":"soon"})", R"({"occur_time":-1})",
                             R"({"occur_time":253402300800})", R"({"occur_time":1e300})"}) {
        AlarmFields fields = FieldsOf(text);
        const std::string before = RestOf(fields);
        EXPECT_EQ(fields.TakeTime(), 1700000000) << text;
        EXPECT_EQ(RestOf(fields), before);
    }
}

TEST(AlarmFields, HaveThePortAsANumber) {
    for (const char* port : {"0", "1", "65535"}) {
        AlarmFields fields =
            FieldsOf(R"({"forensic_info":{"abnormal_port":")" + std::string(port) + R"("}})");
        EXPECT_EQ(fields.TakePort(), std::stoi(port));
        EXPECT_EQ(RestOf(fields), "{}");
    }
}

TEST(AlarmFields, ThatAreNoPortStayTexts) {
    for (const char* port :
         {"", "65536", "-1", "080", " 80", "80 ", "0x50", "ssh", "1,000", "99999999999999999999"}) {
        AlarmFields fields =
            FieldsOf(R"({"forensic_info":{"abnormal_port":")" + std::string(port) + R"("}})");
        EXPECT_EQ(fields.TakePort(), std::nullopt) << port;
        EXPECT_EQ(fields.Rest()["forensic_info"]["abnormal_port"], port);
    }
    EXPECT_EQ(FieldsOf(R"({"forensic_info":{"abnormal_port":80}})").TakePort(), std::nullopt);
}

TEST(AlarmFields, OfWhatIsNoDocumentAreNone) {
    for (const Json::Value& alarm :
         {Json::Value(), Json::Value("text"), Json::Value(7), Json::Value(Json::arrayValue),
          ParseDocument(R"([{"event_id":"x"}])")}) {
        AlarmFields fields(alarm);
        EXPECT_EQ(fields.TakeText("event_id"), std::nullopt);
        EXPECT_EQ(RestOf(fields), "{}");
    }
}

TEST(AlarmFields, AreSetAtAnyPlaceOfARecord) {
    Json::Value record;
    Engine::SetAt(record, "a/b", 1);
    Engine::SetAt(record, "a/c", "x");
    Engine::SetAt(record, "d", true);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(record), R"({"a":{"b":1,"c":"x"},"d":true})");
}

}  // namespace
