#include "PolicyShape.h"

#include "PolicyChecker.h"
#include "support/TemporaryFolder.h"

#include <Poco/String.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

using Agent::PolicyShape;

TEST(PolicyShape, IsFoundByTheFeaturesName) {
    for (const PolicyShape& shape : PolicyShape::All()) {
        EXPECT_EQ(PolicyShape::Find(shape.m_feature), &shape);
    }
    EXPECT_EQ(PolicyShape::Find("qemu_cmd_detect"), nullptr);
    EXPECT_EQ(PolicyShape::Find(""), nullptr);
}

TEST(PolicyShape, IsThatOfTheReadyPolicies) {
    for (const PolicyShape& shape : PolicyShape::All()) {
        const std::string file =
            SOURCE_FOLDER "/policies/" + std::string(shape.m_feature) + ".json";
        for (const Agent::Problem& problem : Agent::PolicyChecker::CheckFile(file)) {
            // Where the source lies is of no concern here.
            EXPECT_TRUE(problem.m_place.empty() && problem.m_warning) << ToText(problem);
        }
    }
}

TEST(PolicyShape, TellsWhichTextsNeverMatch) {
    const auto odd = [](const char* feature, const char* text) {
        return !PolicyShape::Find(feature)->List().m_oddity(text).empty();
    };
    EXPECT_TRUE(odd("qemu_cmd_detect_feature", ""));
    EXPECT_FALSE(odd("qemu_cmd_detect_feature", "id -u"));
    EXPECT_TRUE(odd("qemu_file_detect_feature", "etc/shadow"));
    EXPECT_FALSE(odd("qemu_file_detect_feature", "/etc/shadow"));
    for (const char* port : {"0", "65536", "080", "80 ", "http", ""}) {
        EXPECT_TRUE(odd("qemu_port_detect_feature", port)) << port;
    }
    EXPECT_FALSE(odd("qemu_port_detect_feature", "65535"));
}

/// The part of a text from a heading to the next one of its kind.
std::string Section(const std::string& text, const std::string& mark, const std::string& heading) {
    const std::size_t begin = text.find('\n' + mark + heading + '\n');
    if (begin == std::string::npos) {
        ADD_FAILURE() << heading << " is no heading";
        return "";
    }
    return text.substr(begin, text.find('\n' + mark, begin + 1) - begin);
}

/// Expects a table to have a key, with "required" or a default as the code has it.
void ExpectRow(const std::string& section, const std::string& name, bool required) {
    const std::string begin = "\n| `" + name + "` | ";
    const std::size_t row = section.find(begin);
    ASSERT_NE(row, std::string::npos) << name << " is missing in docs/policies.md";
    EXPECT_EQ(section.compare(row + begin.length(), 8, "required") == 0, required) << name;
}

/// Expects the man page to have a key, and a default where the code requires none.
void ExpectEntry(const std::string& section, const std::string& name, bool required) {
    const std::string begin = "\n.TP\n.B " + name + '\n';
    const std::size_t entry = section.find(begin);
    ASSERT_NE(entry, std::string::npos) << name << " is missing in vmescape-policy.5";
    const std::size_t end = section.find("\n.", entry + begin.length());
    const std::string text = section.substr(entry, end - entry);
    EXPECT_EQ(text.find("Default: ") == std::string::npos, required) << text;
}

TEST(PolicyReference, HasEveryKeyOfEveryPolicyAndTellsWhetherItIsRequired) {
    const std::string document = TestSupport::ReadText(SOURCE_FOLDER "/docs/policies.md");
    const std::string manual = TestSupport::ReadText(SOURCE_FOLDER "/packaging/vmescape-policy.5");
    const std::map<std::string, std::string> headings = {{"commands", "The command policy"},
                                                         {"files", "The file policy"},
                                                         {"ports", "The port policy"}};
    for (const Agent::PolicyField& field : PolicyShape::Envelope()) {
        ExpectRow(document, field.m_key, field.m_required);
        ExpectEntry(Section(manual, ".SH ", "THE ENVELOPE"), field.m_key, field.m_required);
    }
    for (const PolicyShape& shape : PolicyShape::All()) {
        const std::string rows = Section(document, "## ", headings.at(shape.m_detection));
        const std::string entries =
            Section(manual, ".SH ", Poco::toUpper(std::string(shape.m_detection)));
        for (const Agent::PolicyField& field : shape.m_content) {
            ExpectRow(rows, std::string("content.") + field.m_key, field.m_required);
            ExpectEntry(entries, field.m_key, field.m_required);
        }
        for (const Agent::PolicyField& field : shape.m_rule) {
            ExpectRow(rows, field.m_key, field.m_required);
            ExpectEntry(entries, std::string("monitor_list[].") + field.m_key, field.m_required);
        }
    }
}

}  // namespace
