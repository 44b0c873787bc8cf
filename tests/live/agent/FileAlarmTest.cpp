#include "LiveTest.h"
#include "support/WaitUntil.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <utility>

namespace {

namespace fs = std::filesystem;
using Actions = std::set<std::string>;

class FileAlarm : public LiveTest {
protected:
    FileAlarm() { fs::create_directories(m_folder / "sub"); }

    /// An agent that watches the folder, once it does.
    void Start(bool allowList, const std::vector<std::string>& files) {
        Start(Agent::FilePolicy(allowList, {m_folder.Path()}, files));
    }
    void Start(const std::string& policy) {
        m_agent = std::make_unique<Agent>(BUILD_FOLDER,
                                          Agent::PolicyTexts{{Agent::FILE_POLICY_FILE, policy}},
                                          std::vector<std::string>{"--log-level", "information"});
        ASSERT_TRUE(m_agent->WaitForLog(" directories are watched."));
    }

    static std::string Path(const Json::Value& alarm) {
        return alarm["file_info"][0]["file_path"].asString();
    }
    static std::string Action(const Json::Value& alarm) {
        return alarm["file_info"][0]["file_action"].asString();
    }
    static int Pid(const Json::Value& alarm) {
        return alarm["process_info"][0]["process_pid"].asInt();
    }

    /// What has been reported for a file so far.
    Actions ActionsOf(const std::string& path) const {
        Actions actions;
        for (const Json::Value& alarm : m_agent->Alarms()) {
            if (Path(alarm) == path) {
                actions.insert(Action(alarm));
            }
        }
        return actions;
    }
    bool WaitForActions(const std::string& path, const Actions& actions) const {
        return TestSupport::WaitUntil([&] { return ActionsOf(path) == actions; });
    }

    /// Waits until everything that happened so far has been judged: file events come in order.
    void Settle(const Qemu& qemu) {
        const std::string last = m_folder / "sub/last" + std::to_string(m_settled++);
        qemu.Command("logfile " + last);
        EXPECT_TRUE(TestSupport::WaitUntil([&] { return !ActionsOf(last).empty(); })) << last;
    }

    /// Makes QEMU start a program, without a shell, that reads a file and is gone at once.
    std::string ReadByChild(const Qemu& qemu, const std::string& path) {
        const std::string script = m_scripts.Write("reader", "#!/usr/bin/cat " + path + "\n");
        EXPECT_EQ(::chmod(script.c_str(), 0755), 0);
        qemu.Command("netdev_add tap,id=n1,ifname=tapvmescape1,downscript=no,script=" + script);
        return script;
    }

    TestSupport::TemporaryFolder m_folder;
    TestSupport::TemporaryFolder m_scripts;
    std::unique_ptr<Agent> m_agent;
    int m_settled = 0;
};

TEST_F(FileAlarm, TellsWhichVirtualMachineReadAFile) {
    const std::string secret = m_folder.Write("secret", "text");
    Start(false, {secret});
    const Qemu qemu({"-name", "guest=vm-01,debug-threads=on"});
    qemu.Command("object_add secret,id=s0,file=" + secret);
    ASSERT_TRUE(WaitForActions(secret, {"open", "access", "close"})) << m_agent->Log();
    for (const Json::Value& alarm : m_agent->Alarms()) {
        EXPECT_EQ(alarm["event_classid"].asString(), "vmescape_0002");
        EXPECT_EQ(alarm["event_name"].asString(), "Virtualization process access sensitive file");
        EXPECT_EQ(Vm(alarm), "vm-01");
        EXPECT_EQ(Pid(alarm), qemu.Pid());
        EXPECT_EQ(alarm["process_info"][0]["process_name"].asString(), "qemu-system-x86_64");
        EXPECT_EQ(alarm["forensic_info"]["monitor_process"].asString(), "qemu-system-x86_64");
        EXPECT_EQ(alarm["process_info"].size(), 1U);
        EXPECT_EQ(alarm["file_info"].size(), 1U);
    }
}

TEST_F(FileAlarm, TellsOfAFileThatQemuWrites) {
    Start(true, {});
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.Command("pmemsave 0 16 \"" + m_folder / "new" + "\"");
    EXPECT_TRUE(WaitForActions(m_folder / "new", {"open", "modify", "close"})) << m_agent->Log();
}

TEST_F(FileAlarm, TellsOfADiskThatQemuOpens) {
    const std::string secret = m_folder.Write("sub/disk", std::string(1024, 'x'));
    Start(false, {secret});
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.Command("drive_add 0 file=" + secret + ",format=raw,if=none,id=x,readonly=on");
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return ActionsOf(secret).count("open") == 1; }));
}

TEST_F(FileAlarm, NamesAChildThatWasGoneAtOnce) {
    Need(::access("/dev/net/tun", R_OK | W_OK) == 0 ? "" : "/dev/net/tun cannot be used");
    if (IsSkipped()) {
        return;
    }
    const std::string secret = m_folder.Write("secret", "text");
    Start(false, {secret});
    const Qemu qemu({"-name", "guest=vm-tap"});
    ReadByChild(qemu, secret);
    ASSERT_TRUE(WaitForActions(secret, {"open", "access", "close"})) << m_agent->Log();
    for (const Json::Value& alarm : m_agent->Alarms()) {
        EXPECT_EQ(Vm(alarm), "vm-tap");
        EXPECT_EQ(alarm["process_info"][0]["process_name"].asString(), "reader");
        EXPECT_NE(Pid(alarm), qemu.Pid());
        EXPECT_EQ(alarm["forensic_info"]["monitor_process"].asString(), "qemu-system-x86_64");
    }
}

TEST_F(FileAlarm, KnowsAVirtualMachineThatStartedBeforeTheAgent) {
    const std::string secret = m_folder.Write("secret", "text");
    const Qemu qemu({"-name", "guest=vm-early"});
    Start(false, {secret});
    qemu.Command("object_add secret,id=s0,file=" + secret);
    EXPECT_TRUE(WaitForActions(secret, {"open", "access", "close"}));
    EXPECT_EQ(Vm(m_agent->Alarms().front()), "vm-early");
}

TEST_F(FileAlarm, IsRaisedOnlyForWhatADenyListNames) {
    const std::string listed = m_folder.Write("listed", "text");
    const std::string other = m_folder.Write("other", "text");
    Start(false, {listed, m_folder / "sub/last0"});
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.Command("object_add secret,id=s0,file=" + other);
    qemu.Command("object_add secret,id=s1,file=" + listed);
    Settle(qemu);
    EXPECT_EQ(ActionsOf(other), Actions());
    EXPECT_EQ(ActionsOf(listed), (Actions{"open", "access", "close"}));
}

TEST_F(FileAlarm, IsRaisedForAllThatAnAllowListDoesNotName) {
    const std::string listed = m_folder.Write("listed", "text");
    const std::string other = m_folder.Write("sub/other", "text");
    Start(true, {listed});
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.Command("object_add secret,id=s0,file=" + listed);
    qemu.Command("object_add secret,id=s1,file=" + other);
    Settle(qemu);
    EXPECT_EQ(ActionsOf(listed), Actions());
    EXPECT_EQ(ActionsOf(other), (Actions{"open", "access", "close"}));
}

TEST_F(FileAlarm, IsNotRaisedForOthersThatDoTheSame) {
    const std::string secret = m_folder.Write("secret", "text");
    Start(true, {});
    const Qemu qemu({"-name", "guest=vm-01"});
    EXPECT_EQ(TestSupport::ChildProcess::Run({"/usr/bin/cat", secret}).m_status, 0);
    EXPECT_EQ(TestSupport::ChildProcess::Run({"/bin/sh", "-c", "echo x > " + secret}).m_status, 0);
    Settle(qemu);
    EXPECT_EQ(ActionsOf(secret), Actions());
}

TEST_F(FileAlarm, IsNotRaisedForWhatAShellBelowTheMachineStarts) {
    const std::string secret = m_folder.Write("secret", "text");
    Start(true, {});
    const Qemu qemu({"-name", "guest=vm-01"});
    // The way up from the reader ends at the shell. The shell itself is below the machine.
    qemu.RunShell("/usr/bin/cat " + secret + "; : > " + m_folder / "by-shell" + "; exit 1");
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return !ActionsOf(m_folder / "by-shell").empty(); }));
    EXPECT_EQ(ActionsOf(secret), Actions());
}

TEST_F(FileAlarm, IsNotRepeatedForTheSameProcessFileAndAction) {
    const std::string secret = m_folder.Write("secret", "text");
    Start(true, {});
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.Command("object_add secret,id=s0,file=" + secret);
    ASSERT_TRUE(WaitForActions(secret, {"open", "access", "close"}));
    qemu.Command("object_add secret,id=s1,file=" + secret);
    Settle(qemu);
    int alarms = 0;
    for (const Json::Value& alarm : m_agent->Alarms()) {
        alarms += Path(alarm) == secret ? 1 : 0;
    }
    EXPECT_EQ(alarms, 3);
    EXPECT_TRUE(m_agent->WaitForLog("Repeat Alarm: {"));
}

TEST_F(FileAlarm, FollowsAFileToItsNewName) {
    const std::string secret = m_folder.Write("secret", "text");
    Start(true, {});
    const Qemu qemu({"-name", "guest=vm-01"});
    fs::rename(secret, m_folder / "sub/renamed");
    qemu.Command("object_add secret,id=s0,file=" + m_folder / "sub/renamed");
    EXPECT_TRUE(WaitForActions(m_folder / "sub/renamed", {"open", "access", "close"}));
}

TEST_F(FileAlarm, SeesDirectoriesThatAreMadeLater) {
    Start(true, {});
    const Qemu qemu({"-name", "guest=vm-01"});
    fs::create_directories(m_folder / "a/b");
    const std::string secret = m_folder.Write("a/b/secret", "text");
    int attempt = 0;
    EXPECT_TRUE(TestSupport::WaitUntil([&] {
        qemu.Command("object_add secret,id=s" + std::to_string(attempt++) + ",file=" + secret);
        return !ActionsOf(secret).empty();
    }));
}

TEST_F(FileAlarm, FollowsAPolicyWhoseDirectoriesChangeUnderLoad) {
    const TestSupport::TemporaryFolder other;
    const std::string before = m_folder.Write("secret", "text");
    const std::string after = other.Write("secret", "text");
    Start(true, {});
    const Qemu qemu({"-name", "guest=vm-01"});
    TestSupport::ChildProcess load(
        {"/bin/sh", "-c", "while :; do /usr/bin/cat " + before + " " + after + "; done"});
    m_agent->Policies().Replace(Agent::FILE_POLICY_FILE,
                                Agent::FilePolicy(true, {other.Path()}, {}));
    ASSERT_TRUE(m_agent->WaitForLog("Directory(" + m_folder.Path() + ") is no longer watched"));
    qemu.Command("object_add secret,id=s0,file=" + before);
    int attempt = 0;
    EXPECT_TRUE(TestSupport::WaitUntil([&] {
        qemu.Command("object_add secret,id=t" + std::to_string(attempt++) + ",file=" + after);
        return !ActionsOf(after).empty();
    }));
    EXPECT_EQ(ActionsOf(before), Actions());
    load.Signal(SIGKILL);
}

TEST_F(FileAlarm, StopsAndComesBackWithItsPolicy) {
    const std::string secret = m_folder.Write("secret", "text");
    Start(true, {});
    const Qemu qemu({"-name", "guest=vm-01"});
    const std::string on = Agent::FilePolicy(true, {m_folder.Path()}, {});
    std::string off = on;
    off.replace(off.find("\"enabled\":true"), 14, "\"enabled\":false");
    m_agent->Policies().Replace(Agent::FILE_POLICY_FILE, off);
    ASSERT_TRUE(m_agent->WaitForLog("QemuFileDetectTask uninit finish"));
    qemu.Command("object_add secret,id=s0,file=" + secret);
    m_agent->Policies().Replace(Agent::FILE_POLICY_FILE, on);
    ASSERT_TRUE(TestSupport::WaitUntil(
        [&] { return m_agent->CountLog(" directories are watched.") == 2; }));
    EXPECT_EQ(ActionsOf(secret), Actions());
    qemu.Command("object_add secret,id=s1,file=" + secret);
    EXPECT_TRUE(WaitForActions(secret, {"open", "access", "close"}));
}

TEST_F(FileAlarm, GoesOnWhereOneDirectoryCannotBeWatched) {
    const std::string secret = m_folder.Write("secret", "text");
    const std::string file = m_scripts.Write("file", "");
    Start(Agent::FilePolicy(
        true, {"relative", file, "/" + std::string(4095, 'x'), "/no/such\nplace", m_folder.Path()},
        {}));
    EXPECT_TRUE(
        m_agent->WaitForLog("Directory(relative) is not watched: an absolute path is "
                            "expected."));
    EXPECT_TRUE(m_agent->WaitForLog("Directory(" + file + ") cannot be watched"));
    EXPECT_TRUE(m_agent->WaitForLog("File name too long"));
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.Command("object_add secret,id=s0,file=" + secret);
    EXPECT_TRUE(WaitForActions(secret, {"open", "access", "close"}));
}

class QuietLife : public FileAlarm {
protected:
    /// Tries to say hello to the virtual machine's display.
    static void ConnectToDisplay(const std::string& socket) {
        EXPECT_EQ(TestSupport::ChildProcess::Run({"/usr/bin/python3", "-c",
                                                  "import socket,sys\n"
                                                  "s=socket.socket(socket.AF_UNIX)\n"
                                                  "s.connect(sys.argv[1])\n"
                                                  "assert s.recv(12).startswith(b'RFB')\n"
                                                  "s.sendall(b'RFB 003.008\\n')\n"
                                                  "assert s.recv(64)\n",
                                                  socket})
                      .m_status,
                  0);
    }
};

TEST_F(QuietLife, RaisesNoAlarmUnderTheReadyPolicy) {
    Start(TestSupport::ReadText(SOURCE_FOLDER "/policies/" + std::string(Agent::FILE_POLICY_FILE)));
    const TestSupport::TemporaryFolder disks;
    const std::string disk = disks / "disk.qcow2";
    const std::string hot = disks / "hot.qcow2";
    for (const std::string& image : {disk, hot}) {
        ASSERT_EQ(
            TestSupport::ChildProcess::Run({"qemu-img", "create", "-f", "qcow2", image, "16M"})
                .m_status,
            0);
    }
    {
        const Qemu qemu({"-name", "guest=vm-quiet,debug-threads=on", "-vga", "std", "-drive",
                         "file=" + disk + ",if=virtio,format=qcow2", "-netdev", "user,id=n0",
                         "-device", "e1000,netdev=n0", "-device", "virtio-rng-pci", "-device",
                         "qemu-xhci,id=usb", "-vnc", "unix:" + disks / "vnc"});
        qemu.Command("cont");
        ConnectToDisplay(disks / "vnc");
        for (const std::string& line :
             {std::string("info status"), std::string("savevm s1"), std::string("loadvm s1"),
              std::string("delvm s1"), std::string("device_add usb-tablet,id=tablet"),
              std::string("device_del tablet"),
              "drive_add 0 if=none,id=h,file=" + hot + ",format=qcow2",
              std::string("device_add virtio-blk-pci,drive=h,id=hd"),
              "screendump " + disks / "screen.ppm", "logfile " + disks / "log",
              std::string("system_reset"), std::string("stop"),
              "migrate \"exec:cat > " + disks / "state" + "\""}) {
            qemu.Command(line);
        }
        EXPECT_TRUE(TestSupport::WaitUntil(
            [&] { return qemu.Command("info migrate").find("completed") != std::string::npos; }));
        EXPECT_TRUE(m_agent->Alarms().empty()) << m_agent->Log();
        // When this one has come, all before it have been judged.
        qemu.Command("drive_add 0 file=/etc/shadow,format=raw,if=none,id=x,readonly=on");
        EXPECT_TRUE(TestSupport::WaitUntil([&] { return !ActionsOf("/etc/shadow").empty(); }));
    }
    for (const Json::Value& alarm : m_agent->Alarms()) {
        EXPECT_EQ(Path(alarm), "/etc/shadow");
        EXPECT_EQ(Vm(alarm), "vm-quiet");
    }
}

}  // namespace
