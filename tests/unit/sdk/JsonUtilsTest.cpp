#include "sdk/JsonUtils.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using SDK::JsonUtils;

int Parse(const std::string& text, Json::Value& out) {
    return JsonUtils::ParseJsonStr(text.c_str(), text.length(), out);
}

Json::Value Parsed(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(Parse(text, value), 0) << text;
    return value;
}

TEST(ParseJsonStr, AcceptsAnyJsonValue) {
    EXPECT_TRUE(Parsed("{}").isObject());
    EXPECT_TRUE(Parsed(" [1] ").isArray());
    EXPECT_EQ(Parsed("3").asInt(), 3);
    EXPECT_TRUE(Parsed("null").isNull());
}

TEST(ParseJsonStr, RefusesWhatIsNotJsonAndGivesNull) {
    for (const char* text : {"", " ", "{", "no", "{} {}", "{\"a\":1,}x", "// c\n{}", "{'a':1}"}) {
        Json::Value value = "before";
        EXPECT_EQ(Parse(text, value), -1) << text;
        EXPECT_TRUE(value.isNull()) << text;
    }
}

TEST(ParseJsonStr, ReadsNoFurtherThanTheLength) {
    Json::Value value;
    EXPECT_EQ(JsonUtils::ParseJsonStr("12345", 2, value), 0);
    EXPECT_EQ(value.asInt(), 12);
}

TEST(ParseJsonStr, TellsWhereTheTextGoesWrong) {
    Json::Value value;
    std::string error;
    const std::string text = "{\n  \"a\": tru\n}";
    EXPECT_EQ(JsonUtils::ParseJsonStr(text.c_str(), text.length(), value, error), -1);
    EXPECT_NE(error.find("Line 2, Column 8"), std::string::npos) << error;
}

TEST(ParseJsonStr, RefusesKeysThatStandTwiceWhenAskedTo) {
    const std::string text = R"({"a":{"b":1,"b":2}})";
    Json::Value value;
    std::string error;
    ASSERT_EQ(JsonUtils::ParseJsonStr(text.c_str(), text.length(), value, error), 0);
    EXPECT_EQ(value["a"]["b"].asInt(), 2);
    EXPECT_EQ(JsonUtils::ParseJsonStr(text.c_str(), text.length(), value, error,
                                      JsonUtils::DuplicateKeys::REFUSED),
              -1);
    EXPECT_TRUE(value.isNull());
    EXPECT_NE(error.find("Duplicate key: 'b'"), std::string::npos) << error;
}

TEST(ParseJsonStr, RefusesNestingThatWouldExhaustTheStack) {
    Json::Value value;
    EXPECT_EQ(Parse(std::string(10000, '[') + std::string(10000, ']'), value), -1);
    EXPECT_EQ(Parse(std::string(1000000, '['), value), -1);
    EXPECT_EQ(Parse(std::string(500, '[') + std::string(500, ']'), value), 0);
}

TEST(ParseJsonStr, TakesAHundredMegabytes) {
    constexpr std::size_t kLength = 100000000;
    EXPECT_EQ(Parsed('"' + std::string(kLength, 'x') + '"').asString().length(), kLength);
    Json::Value value;
    EXPECT_EQ(Parse(std::string(kLength, ' '), value), -1);
    EXPECT_EQ(Parse('"' + std::string(kLength, 'x'), value), -1);
}

TEST(ParseJsonStr, TakesAnEmptyTextWithoutStorage) {
    Json::Value value = "before";
    EXPECT_EQ(JsonUtils::ParseJsonStr(nullptr, 0, value), -1);
    EXPECT_TRUE(value.isNull());
}

TEST(ParseJsonStr, RefusesAnythingBehindTheValue) {
    for (const char* text :
         {"{} x", "{}}", "1 2", "{}tru", "{} /", "{} // c", "{}/* c */", "{}\""}) {
        Json::Value value;
        EXPECT_EQ(Parse(text, value), -1) << text;
    }
}

TEST(ParseJsonStr, LeavesBytesThatAreNotUtf8AsTheyAre) {
    EXPECT_EQ(Parsed("{\"a\":\"x\xff\xc3\"}")["a"].asString(), "x\xff\xc3");
}

TEST(ParseJsonStr, KeepsNulCharacters) {
    EXPECT_EQ(Parsed(R"("a\u0000b")").asString(), std::string("a\0b", 3));
}

TEST(ParseJsonStr, RefusesAZeroByteInTheText) {
    Json::Value value;
    std::string error;
    const std::string text("{}\0{}", 5);
    EXPECT_EQ(JsonUtils::ParseJsonStr(text.c_str(), text.length(), value, error), -1);
    EXPECT_EQ(error, "zero byte at offset 2");
}

TEST(GetValues, GiveTheDefaultForOtherTypesAndForWhatIsNoObject) {
    const Json::Value value = Parsed(R"({"s":1,"b":"x","o":[],"a":{}})");
    for (const Json::Value& from : {value, Parsed("[]"), Parsed("3"), Parsed("null")}) {
        Json::Value out = "before";
        EXPECT_EQ(JsonUtils::GetStringValue(from, "s", "default"), "default");
        EXPECT_TRUE(JsonUtils::GetBoolValue(from, "b", true));
        EXPECT_FALSE(JsonUtils::GetSubobjectValue(from, "o", out));
        EXPECT_FALSE(JsonUtils::GetArrayValue(from, "a", out));
        EXPECT_EQ(out, "before");
    }
}

TEST(GetValues, GiveWhatIsThere) {
    const Json::Value value = Parsed(R"({"s":"text","b":false,"o":{"x":1},"a":[2]})");
    Json::Value out;
    EXPECT_EQ(JsonUtils::GetStringValue(value, "s", ""), "text");
    EXPECT_FALSE(JsonUtils::GetBoolValue(value, "b", true));
    EXPECT_TRUE(JsonUtils::GetSubobjectValue(value, "o", out));
    EXPECT_EQ(out["x"].asInt(), 1);
    EXPECT_TRUE(JsonUtils::GetArrayValue(value, "a", out));
    EXPECT_EQ(out[0].asInt(), 2);
}

TEST(JsonToString, WritesOneLineOfAscii) {
    Json::Value value;
    value["b"] = "line\nend";
    value["a"].append(1);
    EXPECT_EQ(JsonUtils::JsonToString(value), R"({"a":[1],"b":"line\nend"})");
    EXPECT_EQ(JsonUtils::JsonToString("\xC3\xA9"), R"("\u00e9")");
    EXPECT_EQ(JsonUtils::JsonToString("\xF0\x9F\x98\x80"), R"("\ud83d\ude00")");
    EXPECT_EQ(JsonUtils::JsonToString(std::string("\x1b\0", 2)), R"("\u001b\u0000")");
}

TEST(JsonToString, ReplacesBytesThatAreNotUtf8) {
    EXPECT_EQ(JsonUtils::JsonToString("a\xff\xfe"), R"("a\ufffd\ufffd")");
    EXPECT_EQ(JsonUtils::JsonToString("\xE2\x82"), R"("\ufffd\ufffd")");  // cut short
    EXPECT_EQ(JsonUtils::JsonToString("\xC0\x80"), R"("\ufffd")");        // a zero, overlong
    EXPECT_EQ(JsonUtils::JsonToString("\xED\xA0\x80"), R"("\ufffd")");    // half a pair
}

TEST(JsonToString, GivesBackWhatWasParsed) {
    for (const char* text : {R"({"a":[1,true,null,"x"],"b":{}})", "[]", "-1"}) {
        EXPECT_EQ(JsonUtils::JsonToString(Parsed(text)), text);
    }
}

}  // namespace
