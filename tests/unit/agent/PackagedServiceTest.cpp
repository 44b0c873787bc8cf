// The unit of the service, beside the scripts that remove the package.

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace {

std::string Unit() {
    return TestSupport::ReadText(SOURCE_FOLDER "/packaging/vmescape-agent.service.in");
}

/// What the unit sets a key to; "" when it does not.
std::string ValueOf(const std::string& key) {
    const std::string unit = Unit();
    std::smatch found;
    return std::regex_search(unit, found, std::regex("\n" + key + "=(.*)\n")) ? found[1].str()
                                                                              : std::string();
}

TEST(PackagedService, LeavesTheFolderOfOtherProgramsSocketsWhenItStops) {
    EXPECT_EQ(ValueOf("RuntimeDirectory"), "vmescape");
    EXPECT_EQ(ValueOf("RuntimeDirectoryPreserve"), "yes");
}

TEST(PackagedService, HasNoFolderThatPurgingThePackageLeaves) {
    const std::string script = TestSupport::ReadText(SOURCE_FOLDER "/packaging/postrm");
    const std::string purge = script.substr(script.find("= purge ]"));
    for (const auto& [key, folder] :
         {std::pair("RuntimeDirectory", "/run/"), std::pair("LogsDirectory", "/var/log/"),
          std::pair("StateDirectory", "/var/lib/")}) {
        const std::string path = folder + ValueOf(key);
        EXPECT_TRUE(std::regex_search(purge, std::regex("rm -rf.* " + path + "[ \n]"))) << path;
    }
    const std::string remove = script.substr(0, script.find("= purge ]"));
    EXPECT_NE(remove.find("rm -rf /run/vmescape\n"), std::string::npos) << "until the next boot";
}

}  // namespace
