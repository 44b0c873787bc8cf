#include "LiveTest.h"
#include "support/WaitUntil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using Ports = std::set<std::string>;
using PortsOfMachines = std::map<std::string, Ports>;

class PortAlarm : public LiveTest {
protected:
    /// A port that is free on all addresses, another one each time.
    int Free() {
        while (!IsFree(++m_port)) {
        }
        return m_port;
    }
    /// A display whose port, and that of its websocket, are free.
    int FreeDisplay() {
        while (!IsFree(5900 + ++m_display) || !IsFree(5700 + m_display)) {
        }
        return m_display;
    }

    /// Starts a virtual machine of this name.
    Qemu& Machine(const std::string& name, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"-name", "guest=" + name});
        m_machines.push_back(std::make_unique<Qemu>(arguments));
        return *m_machines.back();
    }

    /// Starts an agent that reports these ports, by virtual machine, in its first look.
    void StartAndExpect(const std::string& policy, PortsOfMachines expected) {
        // One that is always reported tells that the look has begun.
        const std::string always = std::to_string(Free());
        Machine("vm-always", {"-gdb", "tcp:127.0.0.1:" + always});
        expected["vm-always"] = {always};
        m_agent = std::make_unique<Agent>(BUILD_FOLDER,
                                          Agent::PolicyTexts{{Agent::PORT_POLICY_FILE, policy}},
                                          std::vector<std::string>{"--log-level", "information"});
        EXPECT_TRUE(TestSupport::WaitUntil([&] { return Reported() == expected; }))
            << m_agent->Log();
        m_expected = expected;
    }

    /// The same, and nothing more until it ends, which completes a look that has begun.
    void Expect(const std::string& policy, const PortsOfMachines& expected) {
        StartAndExpect(policy, expected);
        EXPECT_EQ(m_agent->Stop(SIGTERM), 0);
        EXPECT_EQ(Reported(), m_expected);
    }

    PortsOfMachines Reported() const {
        PortsOfMachines ports;
        for (const Json::Value& alarm : m_agent->Alarms()) {
            ports[Vm(alarm)].insert(alarm["forensic_info"]["abnormal_port"].asString());
        }
        return ports;
    }

    TestSupport::TemporaryFolder m_folder;
    std::vector<std::unique_ptr<Qemu>> m_machines;
    std::unique_ptr<Agent> m_agent;
    PortsOfMachines m_expected;
    int m_port = 20000;
    int m_display = 60;
};

std::string Text(int number) { return std::to_string(number); }

TEST_F(PortAlarm, TellsWhichVirtualMachineHoldsAPort) {
    const std::string port = Text(Free());
    const Qemu& qemu = Machine("vm-01", {"-qmp", "tcp:127.0.0.1:" + port + ",server,nowait"});
    Expect(Agent::PortPolicy({}), {{"vm-01", {port}}});
    Json::Value alarm;
    for (const Json::Value& candidate : m_agent->Alarms()) {
        alarm = Vm(candidate) == "vm-01" ? candidate : alarm;
    }
    EXPECT_EQ(alarm["event_classid"].asString(), "vmescape_0003");
    EXPECT_EQ(alarm["event_name"].asString(),
              "Virtualization process access abnormal network port");
    EXPECT_EQ(alarm["process_info"][0]["process_name"].asString(), "qemu-system-x86_64");
    EXPECT_EQ(alarm["process_info"][0]["process_pid"].asInt(), qemu.Pid());
    EXPECT_EQ(alarm["forensic_info"]["monitor_process"].asString(), "qemu-system-x86_64");
}

TEST_F(PortAlarm, ExcusesADisplayButNotItsWebsocket) {
    const std::string everywhere = Text(FreeDisplay());
    const std::string here = Text(FreeDisplay());
    const int both = FreeDisplay();
    Machine("vm-everywhere", {"-vnc", ":" + everywhere});
    Machine("vm-here", {"-vnc", "127.0.0.1:" + here});
    Machine("vm-websocket", {"-vnc", ":" + Text(both) + ",websocket=on"});
    Expect(Agent::PortPolicy({}), {{"vm-websocket", {Text(5700 + both)}}});
}

TEST_F(PortAlarm, IsRaisedForControlPortsOfEveryKind) {
    const std::string monitor = Text(Free());
    const std::string serial = Text(Free());
    const std::string gdb = Text(Free());
    const std::string forward = Text(Free());
    const std::string datagrams = Text(Free());
    const std::string six = Text(Free());
    Machine("vm-monitor", {"-monitor", "tcp:127.0.0.1:" + monitor + ",server,nowait"});
    Machine("vm-serial", {"-serial", "telnet:127.0.0.1:" + serial + ",server,nowait"});
    Machine("vm-gdb", {"-gdb", "tcp::" + gdb});
    Machine("vm-forward", {"-netdev", "user,id=n0,hostfwd=tcp:127.0.0.1:" + forward +
                                          "-:22,hostfwd=udp:127.0.0.1:" + datagrams + "-:53"});
    Machine("vm-six", {"-qmp", "tcp::" + six + ",server=on,wait=off,ipv6=on,ipv4=off"});
    Expect(Agent::PortPolicy({}), {{"vm-monitor", {monitor}},
                                   {"vm-serial", {serial}},
                                   {"vm-gdb", {gdb}},
                                   {"vm-forward", {forward, datagrams}},
                                   {"vm-six", {six}}});
}

TEST_F(PortAlarm, IsRaisedForWhatAMachineOpensLater) {
    const std::string disk = m_folder.Write("disk", std::string(1 << 20, 'x'));
    const Qemu& exporting =
        Machine("vm-export", {"-drive", "file=" + disk + ",if=none,id=d0,format=raw"});
    const Qemu& incoming = Machine("vm-incoming", {"-incoming", "defer"});
    const std::string exported = Text(Free());
    const std::string target = Text(Free());
    exporting.Command("nbd_server_start -a 127.0.0.1:" + exported);
    incoming.Command("migrate_incoming tcp:127.0.0.1:" + target);
    StartAndExpect(Agent::PortPolicy({}), {{"vm-export", {exported}}, {"vm-incoming", {target}}});
    // While the agent runs: within its ten seconds.
    const std::string later = Text(Free());
    exporting.Command("gdbserver tcp:127.0.0.1:" + later);
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return Reported()["vm-export"].count(later) == 1; },
                                       std::chrono::seconds(30)));
    // The ports from before were seen again and are not reported again.
    EXPECT_EQ(m_agent->Alarms().size(), 4U);
    EXPECT_TRUE(m_agent->WaitForLog("Repeat Alarm: {"));
}

TEST_F(PortAlarm, IsNotRaisedForAllowedPorts) {
    const std::string allowed = Text(Free());
    const std::string forbidden = Text(Free());
    Machine("vm-01", {"-qmp", "tcp:127.0.0.1:" + allowed + ",server,nowait", "-gdb",
                      "tcp:127.0.0.1:" + forbidden});
    Expect(Agent::PortPolicy({allowed}), {{"vm-01", {forbidden}}});
}

TEST_F(PortAlarm, IsNotRaisedForOthersThatListen) {
    const int port = Free();
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    Expect(Agent::PortPolicy({}), {});
    ::close(listener);
}

TEST_F(PortAlarm, SeesAMachineInANetworkOfItsOwn) {
    const std::string port = Text(Free());
    const TestSupport::ChildProcess pod({"unshare", "--net", "qemu-system-x86_64", "-name",
                                         "guest=vm-pod", "-accel", "tcg", "-m", "32", "-nodefaults",
                                         "-display", "none", "-S", "-qmp",
                                         "tcp:0.0.0.0:" + port + ",server,nowait"});
    m_agent = std::make_unique<Agent>(
        BUILD_FOLDER, Agent::PolicyTexts{{Agent::PORT_POLICY_FILE, Agent::PortPolicy({})}});
    EXPECT_TRUE(TestSupport::WaitUntil(
        [&] {
            return Reported() == PortsOfMachines{{"vm-pod", {port}}};
        },
        std::chrono::seconds(30)))
        << m_agent->Log();
}

TEST_F(PortAlarm, ComesAlsoWithoutBpf) {
    const std::string port = Text(Free());
    Machine("vm-01", {"-qmp", "tcp:127.0.0.1:" + port + ",server,nowait"});
    m_agent = std::make_unique<Agent>(
        BUILD_FOLDER, Agent::PolicyTexts{{Agent::PORT_POLICY_FILE, Agent::PortPolicy({})}},
        std::vector<std::string>{"--log-level", "information", "-o", "net_collect.holders=proc"});
    EXPECT_TRUE(TestSupport::WaitUntil([&] {
        return Reported() == PortsOfMachines{{"vm-01", {port}}};
    }));
    EXPECT_TRUE(m_agent->WaitForLog("The holders of sockets come from source(proc)."));
}

TEST_F(PortAlarm, NeverComesForWhatTheReadyPolicyAllows) {
    const int display = FreeDisplay();
    Machine("vm-display", {"-vnc", "127.0.0.1:" + Text(display)});
    int migration = 49152;
    while (!IsFree(migration)) {
        ++migration;
    }
    ASSERT_LE(migration, 49215);
    Machine("vm-incoming", {"-incoming", "tcp:127.0.0.1:" + Text(migration)});
    Expect(TestSupport::ReadText(SOURCE_FOLDER "/policies/" + std::string(Agent::PORT_POLICY_FILE)),
           {});
}

}  // namespace
