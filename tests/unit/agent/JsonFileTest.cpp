#include "JsonFile.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

namespace {

using Agent::Problem;

class JsonFile : public testing::Test {
protected:
    std::string Complaint(const std::string& text) {
        Json::Value object;
        std::vector<Problem> problems;
        EXPECT_FALSE(Agent::ParseObject("f", text, object, problems));
        EXPECT_EQ(problems.size(), 1U);
        return problems.at(0).m_text;
    }

    std::string ReadComplaint(const std::string& path) {
        std::string text = "unchanged";
        std::vector<Problem> problems;
        EXPECT_FALSE(Agent::ReadWholeFile(path, text, problems));
        EXPECT_EQ(problems.size(), 1U);
        return problems.at(0).m_text;
    }

    TestSupport::TemporaryFolder m_folder;
};

TEST_F(JsonFile, IsReadWhole) {
    std::string text;
    std::vector<Problem> problems;
    EXPECT_TRUE(Agent::ReadWholeFile(m_folder.Write("f", "text\n"), text, problems));
    EXPECT_EQ(text, "text\n");
    EXPECT_TRUE(problems.empty());
}

TEST_F(JsonFile, InAnotherEncodingIsRefusedWithTheLineOfTheByte) {
    EXPECT_EQ(Complaint("{\n\"a\": \"caf\xe9\"}"),
              "expected text in UTF-8, found the byte 0xe9 in line 2");
    EXPECT_EQ(Complaint("{\"a\":\"\xc3\"}"),
              "expected text in UTF-8, found the byte 0xc3 in line 1");
    Json::Value object;
    std::vector<Problem> problems;
    EXPECT_TRUE(Agent::ParseObject("f", "{\"a\":\"caf\xc3\xa9 \xe6\xbc\xa2\"}", object, problems));
}

TEST_F(JsonFile, ThatIsMissingIsAProblemWithItsReason) {
    EXPECT_EQ(ReadComplaint(m_folder / "f"), "cannot be read: No such file or directory");
}

TEST_F(JsonFile, ThatIsANamedPipeOrAFolderIsRefusedWithoutWaiting) {
    ASSERT_EQ(::mkfifo((m_folder / "f").c_str(), 0600), 0);
    EXPECT_EQ(ReadComplaint(m_folder / "f"), "expected a regular file");
    EXPECT_EQ(ReadComplaint(m_folder.Path()), "expected a regular file");
}

TEST_F(JsonFile, ThatIsTooLargeIsRefused) {
    m_folder.Write("f", "");
    std::filesystem::resize_file(m_folder / "f", Agent::MAX_FILE_BYTES + 1);
    EXPECT_EQ(ReadComplaint(m_folder / "f"), "is too large, expected at most 33554432 bytes");
    std::filesystem::resize_file(m_folder / "f", Agent::MAX_FILE_BYTES);
    std::string text;
    std::vector<Problem> problems;
    EXPECT_TRUE(Agent::ReadWholeFile(m_folder / "f", text, problems));
}

TEST_F(JsonFile, ThatIsNotJsonIsToldWithLineAndColumn) {
    const std::string text = Complaint("{\n  \"a\" 1}");
    EXPECT_NE(text.find("Line 2, Column 7"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
}

TEST_F(JsonFile, InWhichAKeyStandsTwiceIsRefusedWithItsNameAndPlace) {
    EXPECT_EQ(Complaint("{\"b\":{\n\"list\":[1],\"x\":2,\n  \"list\":[]}}"),
              "expected JSON: * Line 3, Column 3   Duplicate key: 'list'");
    Json::Value object;
    std::vector<Problem> problems;
    EXPECT_TRUE(Agent::ParseObject("f", R"({"a":{"a":[{"a":1},{"a":2}]}})", object, problems));
}

TEST_F(JsonFile, WithAZeroByteIsRefused) {
    EXPECT_EQ(Complaint(std::string("{}\0{", 4)), "expected JSON: zero byte at offset 2");
}

TEST_F(JsonFile, ThatHoldsNoObjectIsRefused) {
    EXPECT_EQ(Complaint(" \n\t"), "expected a JSON object, found an empty file");
    EXPECT_EQ(Complaint("[]"), "expected a JSON object, found an empty list");
    EXPECT_EQ(Complaint("3"), "expected a JSON object, found a number");
}

TEST_F(JsonFile, ThatIsNestedTenThousandDeepIsRefused) {
    const std::string text = std::string(10000, '[') + std::string(10000, ']');
    EXPECT_EQ(Complaint(text).rfind("expected JSON: ", 0), 0U);
}

TEST_F(JsonFile, TypesAreNamedForPeople) {
    using Agent::DescribeType;
    EXPECT_EQ(DescribeType(Json::Value()), "null");
    EXPECT_EQ(DescribeType(1), "a number");
    EXPECT_EQ(DescribeType(1.5), "a number");
    EXPECT_EQ(DescribeType(Json::UInt64(1)), "a number");
    EXPECT_EQ(DescribeType("x"), "a string");
    EXPECT_EQ(DescribeType(""), "an empty string");
    EXPECT_EQ(DescribeType(true), "a boolean");
    EXPECT_EQ(DescribeType(Json::arrayValue), "an empty list");
    EXPECT_EQ(DescribeType(Json::objectValue), "an object");
}

}  // namespace
