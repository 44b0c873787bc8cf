// Tricks of processes that do not want to be seen, each by a real process below a real QEMU.

#include "LiveTest.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

namespace {

const std::string kHostile = BUILD_FOLDER "/bin/hostile";

class HostileProcess : public LiveTest {
protected:
    /// What the machine runs, by a trick: a program that does nothing, with arguments that nothing
    /// else has.
    static std::string By(const std::string& trick) {
        return kHostile + ' ' + trick + " /usr/bin/true true mark";
    }

    static Json::Value AlarmOf(const Agent& agent, const std::string& command) {
        return agent.WaitForAlarm([&](const Json::Value& alarm) {
            return Mode(alarm) == "system/fork" && Command(alarm).rfind(command, 0) == 0;
        });
    }

    /// Lets a machine run it under an allow list that holds nothing.
    static Json::Value AlarmAfter(const std::string& trick,
                                  const std::string& command = "true mark") {
        Agent agent(BUILD_FOLDER, Agent::Policy(true, {}));
        const Qemu qemu({"-name", "guest=vm-hostile"});
        qemu.RunShell(By(trick));
        const Json::Value alarm = AlarmOf(agent, command);
        EXPECT_FALSE(alarm.isNull()) << trick;
        EXPECT_EQ(Vm(alarm), "vm-hostile") << trick;
        return alarm;
    }

    /// Whether a command is seen by a deny list of programs when a machine runs it by a trick. Of
    /// what a machine does the last comes last: when the end is seen, the rest was judged.
    static bool IsDenied(const std::string& trick) {
        Agent agent(BUILD_FOLDER, Agent::Policy(false, {"/usr/bin/true"}));
        const Qemu qemu({"-name", "guest=vm-hostile"});
        qemu.RunShell(By(trick) + "; /usr/bin/true the end; exit 1");
        EXPECT_FALSE(AlarmOf(agent, "/usr/bin/true the end").isNull());
        const std::vector<Json::Value> alarms = agent.Alarms();
        return std::any_of(alarms.begin(), alarms.end(), [](const Json::Value& alarm) {
            return Command(alarm).rfind("true mark", 0) == 0;
        });
    }
};

TEST_F(HostileProcess, IsSeenThroughADoubleForkIntoAnotherSession) { AlarmAfter("double-fork"); }

TEST_F(HostileProcess, IsSeenWhenItGivesItsChildAway) { AlarmAfter("clone-parent"); }

TEST_F(HostileProcess, IsSeenWhenItIsStartedByVfork) { AlarmAfter("vfork"); }

TEST_F(HostileProcess, IsSeenWhenASecondThreadRunsTheProgram) { AlarmAfter("thread"); }

TEST_F(HostileProcess, IsSeenInNamespacesOfItsOwn) { AlarmAfter("namespaces"); }

TEST_F(HostileProcess, IsSeenBelowOneThatRenamedItself) {
    EXPECT_EQ(AlarmAfter("renamed")["process_info"][0]["parent_process_name"].asString(),
              "hostile");
}

TEST_F(HostileProcess, IsSeenAtTheEndOfALongChain) { AlarmAfter("chain"); }

TEST_F(HostileProcess, IsSeenAmongTwentyThousandOthers) { AlarmAfter("crowd"); }

TEST_F(HostileProcess, IsSeenByAnAllowListWhereverItsProgramComesFrom) {
    for (const char* trick : {"memory", "deleted", "root"}) {
        AlarmAfter(trick);
    }
}

TEST_F(HostileProcess, IsSeenByADenyListByThePathOfItsProgramWhateverItCallsItself) {
    EXPECT_TRUE(IsDenied("fork"));
    EXPECT_TRUE(IsDenied("double-fork"));
    EXPECT_TRUE(IsDenied("namespaces"));
}

TEST_F(HostileProcess, IsNotSeenByADenyListWhenItsProgramHasAnotherPath) {
    EXPECT_FALSE(IsDenied("memory"));
    EXPECT_FALSE(IsDenied("deleted"));
    EXPECT_FALSE(IsDenied("root"));
}

TEST_F(HostileProcess, IsShownWithTheBeginningOfALongCommandLine) {
    const std::string command = Command(AlarmAfter("long"));
    EXPECT_EQ(command, "true mark " + std::string(4096 - 10, 'x'));
}

TEST_F(HostileProcess, IsShownWithoutACommandLineByItsName) {
    Agent agent(BUILD_FOLDER, Agent::Policy(true, {}));
    const Qemu qemu({"-name", "guest=vm-hostile"});
    qemu.RunShell(By("none"));
    const Json::Value alarm = agent.WaitForAlarm([](const Json::Value& candidate) {
        return candidate["process_info"][0]["process_name"].asString() == "true";
    });
    EXPECT_EQ(Vm(alarm), "vm-hostile");
}

TEST_F(HostileProcess, CannotBreakTheDocumentByItsArguments) {
    const std::string command = Command(AlarmAfter("odd"));
    // What is no UTF-8 is replaced, the rest is as it was; that it was one line and JSON, the
    // reading of it has shown.
    EXPECT_EQ(command.rfind("true mark \x1b[31mred\x1b[0m\r\n\"quoted\"\\ ", 0), 0U) << command;
    EXPECT_NE(command.find(" end"), std::string::npos) << command;
}

TEST_F(HostileProcess, CannotReachTheTerminalByItsArgumentsOrItsName) {
    Agent agent(BUILD_FOLDER, Agent::Policy(true, {}),
                {"--output", "text:stdout", "-o", "report.color=never"});
    const Qemu qemu({"-name", "guest=vm\x1b]0;title\x07\n-1"});
    qemu.RunShell(By("odd"));
    EXPECT_TRUE(TestSupport::WaitUntil(
        [&] { return agent.Child().Output().find("quoted") != std::string::npos; }));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    const std::string& output = agent.Child().Output();
    for (const char byte : output) {
        EXPECT_TRUE(byte == '\n' || std::iscntrl(static_cast<unsigned char>(byte)) == 0)
            << static_cast<int>(byte) << " in " << output;
    }
    EXPECT_EQ(output.find("\xe2\x80\xae"), std::string::npos) << "text that runs backwards";
    EXPECT_NE(output.find("\\u202e"), std::string::npos) << output;
}

TEST_F(HostileProcess, IsNoVirtualMachineBecauseItCallsItselfOne) {
    Agent agent(BUILD_FOLDER, Agent::Policy(true, {}));
    const Qemu qemu({"-name", "guest=vm-hostile"});
    // Beside it, not below it: a name given by prctl, and one given as argv[0].
    TestSupport::ChildProcess::Run(
        {"/bin/bash", "-c", "echo qemu-system-x86 > /proc/self/comm; /usr/bin/id first"});
    TestSupport::ChildProcess::Run(
        {"/bin/bash", "-c", "exec -a qemu-system-x86_64 /bin/bash -c '/usr/bin/id second; true'"});
    qemu.RunShell(By("fork"));
    EXPECT_FALSE(AlarmOf(agent, "true mark").isNull());
    for (const Json::Value& alarm : agent.Alarms()) {
        EXPECT_NE(Command(alarm), "/usr/bin/id first");
        EXPECT_NE(Command(alarm), "/usr/bin/id second");
    }
}

TEST_F(HostileProcess, IsTheMachineStillWhenQemuGaveItselfAnotherName) {
    Agent agent(BUILD_FOLDER, Agent::Policy(true, {}));
    const Qemu qemu({"-name", "guest=vm-hostile,process=sshd"});
    qemu.RunShell(By("fork"));
    EXPECT_EQ(Vm(AlarmOf(agent, "true mark")), "vm-hostile");
}

}  // namespace
