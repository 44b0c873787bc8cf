#include "PolicyShape.h"

#include "PolicyChecker.h"

#include <gtest/gtest.h>

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

}  // namespace
