#include "SelftestActor.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <sstream>

namespace {

/// What the actor answers to its orders, without the times.
std::string Failures(const std::string& orders) {
    std::istringstream input(orders);
    std::ostringstream output;
    EXPECT_EQ(Agent::SelftestActor::Run(input, output), 0);
    std::istringstream lines(output.str());
    std::string failures;
    for (std::string line; std::getline(lines, line);) {
        if (!std::all_of(line.begin(), line.end(), ::isdigit)) {
            failures += line + '\n';
        }
    }
    return failures;
}

TEST(SelftestActor, DoesWhatAMachineShouldNot) {
    const TestSupport::TemporaryFolder folder;
    EXPECT_EQ(Failures("command\nfile " + folder.Write("key", "secret") + "\nport\n"), "");
}

TEST(SelftestActor, SaysWhatFailed) {
    EXPECT_EQ(Failures("file /no/such/file\n"),
              "failed: file /no/such/file: No such file or directory\n");
    EXPECT_EQ(Failures("nonsense\n"), "failed: nonsense: Invalid argument\n");
}

TEST(SelftestActor, TellsTheTimeOfEachAct) {
    std::istringstream input("port\n");
    std::ostringstream output;
    const auto before = std::chrono::steady_clock::now().time_since_epoch().count();
    Agent::SelftestActor::Run(input, output);
    EXPECT_GE(std::stol(output.str()), before);
    EXPECT_LE(std::stol(output.str()), std::chrono::steady_clock::now().time_since_epoch().count());
}

}  // namespace
