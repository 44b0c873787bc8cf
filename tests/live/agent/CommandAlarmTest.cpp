#include "LiveTest.h"
#include "support/WaitUntil.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <set>

namespace {

namespace fs = std::filesystem;

using CommandAlarm = LiveTest;

TEST_F(CommandAlarm, TellsWhichVirtualMachineStartedAShell) {
    Agent agent(BUILD_FOLDER, DenyList());
    const Qemu qemu({"-name", "guest=vm-01,debug-threads=on"});
    qemu.RunShell("id");
    const Json::Value alarm = agent.WaitForAlarm([&](const Json::Value& candidate) {
        return candidate["process_info"][0]["parent_process_pid"].asInt() == qemu.Pid();
    });
    EXPECT_EQ(Mode(alarm), "shell");
    EXPECT_EQ(Vm(alarm), "vm-01");
    EXPECT_EQ(Command(alarm), "/bin/sh -c id");
    EXPECT_EQ(alarm["process_info"][0]["process_name"].asString(), "sh");
    EXPECT_EQ(alarm["process_info"][0]["parent_process_name"].asString(), "qemu-system-x86_64");
    EXPECT_EQ(alarm["forensic_info"]["monitor_process"].asString(), "qemu-system-x86_64");
    EXPECT_EQ(alarm["event_classid"].asString(), "vmescape_0001");
    EXPECT_EQ(alarm["detect_module"].asString(), "vmescape_module");
    EXPECT_NE(WaitFor(agent, "system/fork", "id"), Json::Value());
}

TEST_F(CommandAlarm, TellsOfAShellWithinAShell) {
    Agent agent(BUILD_FOLDER, DenyList());
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.RunShell("sh -c bash");
    EXPECT_EQ(Vm(WaitFor(agent, "shell", "/bin/sh -c sh -c bash")), "vm-01");
    EXPECT_EQ(Vm(WaitFor(agent, "shell", "sh -c bash")), "vm-01");
}

TEST_F(CommandAlarm, TellsOfAProgramInTheTemporaryFolder) {
    Agent agent(BUILD_FOLDER, DenyList());
    const TestSupport::TemporaryFolder folder("/tmp");
    fs::copy_file("/usr/bin/false", folder / "payload");
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.RunShell(folder / "payload" + " now");
    const Json::Value alarm = WaitFor(agent, "forbidden dir", folder / "payload" + " now");
    EXPECT_EQ(Vm(alarm), "vm-01");
    EXPECT_EQ(alarm["process_info"][0]["process_name"].asString(), "payload");
}

TEST_F(CommandAlarm, TellsOfAProgramThatQemuStartsWithoutAShell) {
    Need(::access("/dev/net/tun", R_OK | W_OK) == 0 ? "" : "/dev/net/tun cannot be used");
    if (IsSkipped()) {
        return;
    }
    Agent agent(BUILD_FOLDER, Agent::Policy(true, {}));
    const TestSupport::TemporaryFolder folder("/tmp");
    fs::copy_file("/usr/bin/true", folder / "ifup-prog");
    const Qemu qemu({"-name", "guest=vm-tap", "-netdev",
                     "tap,id=n0,ifname=tapvmescape0,downscript=no,script=" + folder / "ifup-prog"});
    const Json::Value alarm = WaitFor(agent, "system/fork", folder / "ifup-prog" + " tapvmescape0");
    EXPECT_EQ(Vm(alarm), "vm-tap");
    EXPECT_EQ(alarm["process_info"][0]["process_name"].asString(), "ifup-prog");
    EXPECT_EQ(alarm["process_info"][0]["parent_process_pid"].asInt(), qemu.Pid());
}

TEST_F(CommandAlarm, KnowsAVirtualMachineThatStartedBeforeTheAgent) {
    const Qemu qemu({"-name", "guest=vm-early"});
    Agent agent(BUILD_FOLDER, DenyList());
    qemu.RunShell("id");
    EXPECT_EQ(Vm(WaitFor(agent, "system/fork", "id")), "vm-early");
}

TEST_F(CommandAlarm, ComesForEachProcessThatRunsTheSameCommand) {
    Agent agent(BUILD_FOLDER, DenyList());
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.RunShell("id; id; exit 1");
    std::set<int> pids;
    EXPECT_TRUE(TestSupport::WaitUntil([&] {
        for (const Json::Value& alarm : agent.Alarms()) {
            if (Command(alarm) == "id" && Mode(alarm) == "system/fork") {
                pids.insert(alarm["process_info"][0]["process_pid"].asInt());
            }
        }
        return pids.size() == 2;
    }));
}

TEST_F(CommandAlarm, MissesNoneOfTwoThousandShortLivedCommands) {
    constexpr int kCommands = 2000;
    Agent agent(BUILD_FOLDER, DenyList());
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.RunShell("i=0; while [ $i -lt " + std::to_string(kCommands) +
                  " ]; do i=$((i+1)); /usr/bin/true number $i; done; exit 1");
    std::multiset<std::string> seen;
    EXPECT_TRUE(TestSupport::WaitUntil(
        [&] {
            seen.clear();
            for (const Json::Value& alarm : agent.Alarms()) {
                if (Mode(alarm) == "system/fork") {
                    seen.insert(Command(alarm));
                }
            }
            return seen.size() >= kCommands;
        },
        std::chrono::seconds(60)));
    for (int i = 1; i <= kCommands; ++i) {
        EXPECT_EQ(seen.count("/usr/bin/true number " + std::to_string(i)), 1U) << i;
    }
}

TEST_F(CommandAlarm, ComesAlsoWhenNobodyReadsTheLog) {
    Agent agent(BUILD_FOLDER, DenyList(), {"--log-level", "debug"});
    const Qemu qemu({"-name", "guest=vm-01"});
    // Each process is worth several lines: far more than a pipe holds.
    qemu.RunShell("i=0; while [ $i -lt 500 ]; do i=$((i+1)); /usr/bin/true; done; id; exit 1");
    EXPECT_EQ(Vm(WaitFor(agent, "system/fork", "id")), "vm-01");
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    EXPECT_NE(agent.Log().find(" lines were lost)"), std::string::npos);
}

TEST_F(CommandAlarm, NamesAMachineWithoutNameUnknown) {
    Agent agent(BUILD_FOLDER, DenyList());
    const Qemu qemu({});
    qemu.RunShell("id");
    EXPECT_EQ(Vm(WaitFor(agent, "system/fork", "id")), "Unknow");
}

TEST_F(CommandAlarm, NeverComesInAQuietLifeUnderTheReadyPolicy) {
    Agent agent(BUILD_FOLDER, TestSupport::ReadText(SOURCE_FOLDER "/policies/" +
                                                    std::string(Agent::POLICY_FILE)));
    const Qemu qemu({"-name", "guest=vm-quiet", "-vga", "std", "-device", "qemu-xhci,id=usb"});
    const TestSupport::TemporaryFolder folder;
    for (const std::string& line :
         {std::string("info status"), std::string("device_add usb-tablet,id=tablet"),
          std::string("device_del tablet"), "screendump " + folder / "screen.ppm",
          std::string("system_reset"), std::string("netdev_add bridge,id=b0,br=novmescape0"),
          std::string("info network")}) {
        qemu.Command(line);
    }
    TestSupport::ChildProcess::Run({"/bin/sh", "-c", "/bin/sh -c id"});
    EXPECT_EQ(agent.Alarms().size(), 0U);
    // Events come in order: when this one has come, all before it have been judged.
    qemu.RunShell("id");
    EXPECT_FALSE(WaitFor(agent, "system/fork", "id").isNull());
    for (const Json::Value& alarm : agent.Alarms()) {
        EXPECT_TRUE(Command(alarm) == "/bin/sh -c id" || Command(alarm) == "id") << Command(alarm);
        EXPECT_EQ(Vm(alarm), "vm-quiet");
    }
}

}  // namespace
