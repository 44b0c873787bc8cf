// What befalls an agent on a real host: it goes on, and says what it lost.

#include "LiveTest.h"
#include "sdk/UniqueDescriptor.h"
#include "support/WaitUntil.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

namespace {

using TestSupport::ChildProcess;
using TestSupport::WaitUntil;

class Fault : public LiveTest {
protected:
    /// Commands beside the machines: they fill what the kernel keeps for the agent.
    static void RunCommands(int count) {
        ChildProcess::Run({"/bin/sh", "-c",
                           "i=0; while [ $i -lt " + std::to_string(count) +
                               " ]; do /bin/true; i=$((i+1)); done"});
    }

    static std::string VmOf(const Agent& agent, const std::string& command) {
        return Vm(WaitFor(agent, "system/fork", command));
    }
};

TEST_F(Fault, WhatTheKernelLostWhileTheAgentStoodStillIsSaidAndMachinesAreKnownAgain) {
    // The smallest buffer: a few events.
    Agent agent(BUILD_FOLDER, DenyList(),
                {"-o", "process_collect.source=bpf", "-o", "process_collect.ring_bytes=4096",
                 "--log-level", "information"});
    agent.Child().Signal(SIGSTOP);
    RunCommands(200);
    const Qemu missed({"-name", "guest=vm-missed"});
    RunCommands(200);
    agent.Child().Signal(SIGCONT);
    EXPECT_TRUE(agent.WaitForLog("lost")) << agent.Log();
    // Its start was lost: only a fresh look at all processes can tell whose child this is.
    missed.RunShell("id");
    EXPECT_EQ(VmOf(agent, "id"), "vm-missed");
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
}

/// The clock of the agents that are started while it lives, and of no one else.
class MovableClock {
public:
    MovableClock() {
        Move(0);
        ::setenv("LD_PRELOAD", BUILD_FOLDER "/bin/libMovedClock.so", 1);
        ::setenv("CLOCK_SHIFT", (m_folder / "shift").c_str(), 1);
    }
    ~MovableClock() { LeaveOthersAlone(); }
    MovableClock(const MovableClock&) = delete;
    MovableClock& operator=(const MovableClock&) = delete;

    /// Programs that are started from now on have the host's clock.
    static void LeaveOthersAlone() {
        ::unsetenv("LD_PRELOAD");
        ::unsetenv("CLOCK_SHIFT");
    }

    /// @param seconds  beside the host's clock
    void Move(std::int64_t seconds) const {
        // In place: the file is mapped.
        std::fstream file(m_folder / "shift", std::ios::in | std::ios::out);
        if (!file) {
            file.open(m_folder / "shift", std::ios::out);
        }
        file.write(reinterpret_cast<const char*>(&seconds), sizeof(seconds));
    }

private:
    TestSupport::TemporaryFolder m_folder;
};

TEST_F(Fault, AClockThatIsSetForwardAndBackCostsNoMachineAndNoAlarm) {
    constexpr std::int64_t kDay = 86400;
    const MovableClock clock;
    Agent agent(BUILD_FOLDER, DenyList());
    MovableClock::LeaveOthersAlone();
    const Qemu early({"-name", "guest=vm-early"});
    const Qemu later({"-name", "guest=vm-later"});
    for (const auto& [shift, qemu, name] :
         {std::tuple{kDay, &early, "vm-early"}, std::tuple{-kDay, &later, "vm-later"}}) {
        clock.Move(shift);
        // Known since before the clock was set.
        qemu->RunShell("/usr/bin/true known " + std::string(name));
        const Json::Value known =
            WaitFor(agent, "system/fork", "/usr/bin/true known " + std::string(name));
        EXPECT_EQ(Vm(known), "vm-early") << "all machines of a program go by the first one's name";
        EXPECT_NEAR(known["occur_time"].asDouble(), static_cast<double>(::time(nullptr) + shift),
                    60);
        const Qemu fresh({"-name", "guest=vm-fresh"});
        fresh.RunShell("/usr/bin/true fresh " + std::string(name));
        EXPECT_FALSE(
            WaitFor(agent, "system/fork", "/usr/bin/true fresh " + std::string(name)).isNull())
            << shift;
    }
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
}

TEST_F(Fault, AccessesThatTheKernelHasNoRoomForAreSaidAndDetectionGoesOn) {
    std::ifstream limit("/proc/sys/fs/fanotify/max_queued_events");
    int files = 0;
    limit >> files;
    const TestSupport::TemporaryFolder folder;
    Agent agent(BUILD_FOLDER,
                {{Agent::FILE_POLICY_FILE, Agent::FilePolicy(true, {folder.Path()}, {})}},
                {"--log-level", "information"});
    ASSERT_TRUE(agent.WaitForLog("directories are watched."));
    agent.Child().Signal(SIGSTOP);
    // Some more than there is room for: threads of it may still take some until they stand.
    for (int i = 0; i <= files + files / 8; ++i) {
        folder.Write(std::to_string(i), "");
    }
    agent.Child().Signal(SIGCONT);
    EXPECT_TRUE(agent.WaitForLog("(fs.fanotify.max_queued_events) was full, 1 times so far"));
    const Qemu qemu({"-name", "guest=vm-file"});
    qemu.Command("logfile " + folder / "log");
    const Json::Value alarm = agent.WaitForAlarm([&](const Json::Value& candidate) {
        return candidate["file_info"][0]["file_path"].asString() == folder / "log";
    });
    EXPECT_EQ(Vm(alarm), "vm-file");
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
}

TEST_F(Fault, AKilledAgentsSuccessorKnowsEveryMachineThatRuns) {
    const Qemu first({"-name", "guest=vm-first,debug-threads=on"});
    for (int i = 0; i < 3; ++i) {
        Agent killed(BUILD_FOLDER, DenyList());
        RunCommands(10 * i);
        killed.Child().Signal(SIGKILL);
        EXPECT_EQ(killed.Child().Wait(), 128 + SIGKILL);
    }
    Agent agent(BUILD_FOLDER, DenyList());
    first.RunShell("id");
    EXPECT_EQ(VmOf(agent, "id"), "vm-first");
}

TEST_F(Fault, AnAgentMayBeKilledAtAnyMomentOfItsStart) {
    const TestSupport::TemporaryFolder folder;
    folder.Write(Agent::POLICY_FILE, DenyList());
    const std::string config = folder.Write("agent.json", "{}");
    const std::vector<std::string> arguments = {BUILD_FOLDER "/bin/vmescape-agent",
                                                "run",
                                                "--config",
                                                config,
                                                "--policies",
                                                folder.Path(),
                                                "--log-level",
                                                "debug",
                                                "-o",
                                                "status.socket=" + folder / "socket"};
    const Qemu machine({"-name", "guest=vm-first"});
    bool ran = false;
    for (std::chrono::milliseconds age(0); !ran; age += std::chrono::milliseconds(3)) {
        const auto end = std::chrono::steady_clock::now() + age;
        ChildProcess killed(arguments);
        WaitUntil([&] { return std::chrono::steady_clock::now() >= end; });
        killed.Signal(SIGKILL);
        EXPECT_EQ(killed.Wait(), 128 + SIGKILL);
        ran = killed.Errors().find(" is running, ") != std::string::npos;
    }
    Agent agent(BUILD_FOLDER, DenyList(), {"-o", "status.socket=" + folder / "socket"});
    machine.RunShell("id");
    EXPECT_EQ(VmOf(agent, "id"), "vm-first");
    EXPECT_EQ(agent.CountLog("Nobody can ask for the status"), 0) << agent.Log();
}

TEST_F(Fault, AnOutputThatNobodyReadsHoldsUpNoOther) {
    const TestSupport::TemporaryFolder folder;
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    // Open for reading, and never read.
    const SDK::UniqueDescriptor silent(::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    Agent agent(BUILD_FOLDER, DenyList(),
                {"--output", "file:" + pipe + ",file:" + folder / "alarms"});
    const Qemu storm({"-name", "guest=vm-storm"});
    // Each alarm has about a thousand bytes, the pipe holds 65,536.
    storm.RunShell("i=0; while [ $i -lt 300 ]; do i=$((i+1)); /usr/bin/true $i; done; exit 1");
    EXPECT_TRUE(WaitUntil([&] {
        return TestSupport::ReadText(folder / "alarms").find("\"/usr/bin/true 300\"") !=
               std::string::npos;
    }));
    EXPECT_EQ(agent.Stop(SIGTERM), 0) << "and it ends all the same";
    EXPECT_EQ(agent.CountLog("Output(" + pipe + ") ends: "), 1) << "what was not written is said";
}

TEST_F(Fault, AFullFileSystemCostsAlarmsThatAreCountedAndNoMore) {
    const TestSupport::TemporaryFolder folder;
    if (::mount("none", folder.Path().c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "no mounts here";
    }
    {
        Agent agent(BUILD_FOLDER, DenyList(), {"--output", "file:" + folder / "alarms"});
        // Room for a few alarms only.
        std::ofstream(folder / "filler") << std::string(56 << 10, 'x');
        const Qemu storm({"-name", "guest=vm-storm"});
        storm.RunShell("i=0; while [ $i -lt 100 ]; do i=$((i+1)); /usr/bin/true $i; done; exit 1");
        EXPECT_TRUE(agent.WaitForLog("cannot be written: No space left on device"));
        std::filesystem::remove(folder / "filler");
        const Qemu after({"-name", "guest=vm-after"});
        after.RunShell("id");
        EXPECT_TRUE(WaitUntil([&] {
            return TestSupport::ReadText(folder / "alarms").find("\"process_cmdline\":\"id\"") !=
                   std::string::npos;
        }));
        EXPECT_EQ(agent.Stop(SIGTERM), 0);
        std::istringstream lines(TestSupport::ReadText(folder / "alarms"));
        for (std::string line; std::getline(lines, line);) {
            EXPECT_TRUE(line.front() == '{' && line.back() == '}') << line;
        }
        EXPECT_GT(agent.CountLog("failed"), 0) << agent.Log();
    }
    ::umount2(folder.Path().c_str(), MNT_DETACH);
}

TEST_F(Fault, PoliciesThatGoAndComeBackAreFollowed) {
    Agent agent(BUILD_FOLDER, DenyList());
    const std::string folder = agent.Policies().Path();
    const std::string policy = folder + '/' + Agent::POLICY_FILE;
    std::filesystem::rename(folder, folder + ".away");
    EXPECT_TRUE(agent.WaitForLog("is gone, its policies stay in force"));
    const Qemu during({"-name", "guest=vm-during"});
    during.RunShell("id");
    EXPECT_EQ(VmOf(agent, "id"), "vm-during");
    std::filesystem::rename(folder + ".away", folder);
    EXPECT_TRUE(agent.WaitForLog("is there again"));
    agent.Policies().Replace(Agent::POLICY_FILE, Agent::Policy(false, {"/usr/bin/whoami"}));
    EXPECT_TRUE(WaitUntil([&] { return agent.CountLog("is in force") == 2; })) << agent.Log();
}

}  // namespace
