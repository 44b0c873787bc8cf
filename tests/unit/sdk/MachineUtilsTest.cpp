#include "sdk/MachineUtils.h"

#include <gtest/gtest.h>

namespace {

using SDK::MachineUtils;

/// The value of a key in a command line, or "(none)" when the result says so.
std::string Item(const std::string& cmdline, const std::string& key) {
    std::string value = "untouched";
    const int result = MachineUtils::GetItemFromCmdline(cmdline, key, value);
    EXPECT_EQ(result, value == "Unknow" ? -1 : 0);
    return value;
}

TEST(GetItemFromCmdline, FindsNothingInAnEmptyCommandLine) {
    EXPECT_EQ(Item("", "-uuid"), "Unknow");
}

TEST(GetItemFromCmdline, EndsTheValueAtABlankOrAComma) {
    EXPECT_EQ(Item("qemu -uuid abc -S", "-uuid"), "abc");
    EXPECT_EQ(Item("qemu -uuid abc,def", "-uuid"), "abc");
    EXPECT_EQ(Item("qemu -uuid abc", "-uuid"), "abc");
}

TEST(GetItemFromCmdline, SkipsSeveralBlanksBeforeTheValue) {
    EXPECT_EQ(Item("qemu -uuid   abc", "-uuid"), "abc");
}

TEST(GetItemFromCmdline, TakesTheFormWithABlankBeforeTheOneWithAnEqualsSign) {
    EXPECT_EQ(Item("-uuid=first -uuid second", "-uuid"), "second");
    EXPECT_EQ(Item("-uuid=first", "-uuid"), "first");
}

TEST(GetItemFromCmdline, LooksAtTheFirstOccurrenceInAPieceOnly) {
    EXPECT_EQ(Item("-uuid first -uuid second", "-uuid"), "first");
    EXPECT_EQ(Item("-uuid=first -uuid=second", "-uuid"), "first");
    EXPECT_EQ(Item("-uuid ", "-uuid"), "Unknow");
    EXPECT_EQ(Item("-uuid=,-uuid=second", "-uuid"), "second");
}

TEST(GetItemFromCmdline, TrimsAPieceBeforeItLooksForTheKey) {
    EXPECT_EQ(Item("-uuid=abc -uuid ", "-uuid"), "abc");
}

TEST(GetItemFromCmdline, MatchesAKeyInsideAnArgumentToo) {
    EXPECT_EQ(Item("x-uuid abc", "-uuid"), "abc");
}

TEST(GetVmName, ComesFromTheNamedPropertyFirst) {
    EXPECT_EQ(MachineUtils::GetNameFromCmdline("qemu -name guest=vm-01,debug-threads=on -S"),
              "vm-01");
    EXPECT_EQ(MachineUtils::GetNameFromCmdline("qemu -name vm-01 -S"), "vm-01");
    EXPECT_EQ(MachineUtils::GetNameFromCmdline("qemu -S"), "Unknow");
    EXPECT_EQ(MachineUtils::GetNameFromCmdline(""), "Unknow");
    EXPECT_EQ(MachineUtils::GetNameFromCmdline("qemu -name guest -S"), "-S");
    EXPECT_EQ(MachineUtils::GetNameFromCmdline("qemu -name guest vm-01"), "vm-01");
}

TEST(GetVmName, WithAnEmptyPropertyIsWhatFollowsTheOption) {
    EXPECT_EQ(MachineUtils::GetNameFromCmdline("qemu -name guest=,debug-threads=on -name vm-02"),
              "guest=");
}

TEST(GetVmUuid, ComesFromTheManagementToolsQueryOrTheOption) {
    EXPECT_EQ(MachineUtils::GetUuidFromCmdline("virsh domuuid 4711"), "4711");
    EXPECT_EQ(MachineUtils::GetUuidFromCmdline("qemu -uuid 12-34 -S"), "12-34");
    EXPECT_EQ(MachineUtils::GetUuidFromCmdline(""), "Unknow");
}

TEST(GetVmUuid, TakesTheManagementToolsQueryFirst) {
    EXPECT_EQ(MachineUtils::GetUuidFromCmdline("virsh domuuid 1 -uuid 2"), "1");
    EXPECT_EQ(MachineUtils::GetUuidFromCmdline("-uuid 2 virsh domuuid 1"), "1");
}

}  // namespace
