#include "OpenFileTask.h"
#include "filenotify/FileNotifyMessage.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <system_error>

namespace {

using Engine::FileNotifyMessage;
using Framework::Message;
using TestSupport::CapturedLog;
using Strings = std::vector<std::string>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kDebug = Poco::Message::PRIO_DEBUG;
constexpr int kNobody = 1 << 23;

class FileChecks : public testing::Test {
protected:
    FileChecks() {
        m_task->Use(FilePolicy({}, {m_allowed}));
        m_processes.Add(100, "qemu-kvm", 1, "qemu-kvm -name vm-01");
        m_processes.Add(200, "cat", 100);
        m_log.Clear();
    }

    static std::shared_ptr<Message> Event(int pid, int mask, const std::string& path) {
        return std::make_shared<FileNotifyMessage>(pid, mask, path);
    }
    void Check(std::vector<std::shared_ptr<Message>> messages) {
        m_task->CheckSensitiveFile(messages);
    }
    bool Access(int pid, const std::string& path, int mask = FileNotifyMessage::OPEN) {
        return m_task->CheckProcessAccessSensitiveFile(pid, path, mask);
    }
    std::size_t Alarms() { return m_agent.Reporter().Count(); }
    std::size_t Lines(const std::string& text) { return m_log.Count(kDebug, text); }

    TestSupport::ScriptedAgent m_agent;
    TestSupport::TemporaryFolder m_folder;
    const std::string m_secret = m_folder.Write("secret", "x");
    const std::string m_allowed = m_folder.Write("allowed", "x");
    ScriptedProcesses m_processes;
    CapturedLog m_log;
    OpenFileTaskPtr m_task = new OpenFileTask;
};

TEST_F(FileChecks, JudgeABatchInItsOrder) {
    Check({Event(100, 32, m_secret), Event(100, 1, m_secret)});
    EXPECT_EQ(Alarms(), 2U);
    EXPECT_EQ(Lines("MsgVector size is 2 in CheckSensitiveFile"), 1U);
    EXPECT_EQ(Lines("Process(100) access file:(path:" + m_secret + ",mask:32)"), 1U);
    EXPECT_EQ(Lines("Process(name:qemu-kvm,pid:100) access sensitive file:(" + m_secret + ") "),
              2U);
}

TEST_F(FileChecks, AlarmABatchInItsOrder) {
    Check({Event(100, 32, m_secret), Event(100, 1, m_secret)});
    ASSERT_EQ(Alarms(), 2U);
    const std::vector<Json::Value> alarms = m_agent.Reporter().Alarms();
    EXPECT_EQ(alarms[0]["file_info"][0]["file_action"].asString(), "open");
    EXPECT_EQ(alarms[1]["file_info"][0]["file_action"].asString(), "access");
    for (const Json::Value& alarm : alarms) {
        EXPECT_EQ(alarm["file_info"][0]["file_path"].asString(), m_secret);
    }
}

/// Removes the file that it alarms.
class RemovingFileTask : public OpenFileTask {
public:
    void SendAlarm(const std::string& monitorProcess, const std::string& processName, int pid,
                   const std::string& filePath, const std::string& fileAction) override {
        OpenFileTask::SendAlarm(monitorProcess, processName, pid, filePath, fileAction);
        std::filesystem::remove(filePath);
    }
};

TEST_F(FileChecks, AskForTheFileOfEachEvent) {
    m_task = new RemovingFileTask;
    m_task->Use(FilePolicy({}, {m_allowed}));
    Check({Event(100, 32, m_secret), Event(100, 16, m_secret)});
    EXPECT_EQ(Alarms(), 1U);
    EXPECT_EQ(Lines("filePath:(" + m_secret + ") is not a file"), 1U);
    EXPECT_FALSE(Access(100, m_secret, 2));
}

TEST_F(FileChecks, LogAndSkipMessagesThatAreNone) {
    Check({nullptr, std::make_shared<Message>("procs_message"), Event(100, 32, m_secret)});
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"MsgData is null ptr in QemuFileDetectTask::CheckSensitiveFile",
                       "MsgData(msgType:procs_message) is not filenotify message in "
                       "QemuFileDetectTask::CheckSensitiveFile"}));
    EXPECT_EQ(Alarms(), 1U);
}

TEST_F(FileChecks, LogAndSkipMessagesWhoseTypeIsNotExactlyThatOfFileEvents) {
    for (const std::string type : {"filenotify2", "file", "", "Filenotify"}) {
        m_log.Clear();
        Check({std::make_shared<Message>(type)});
        EXPECT_EQ(m_log.Texts(kError), Strings{"MsgData(msgType:" + type +
                                               ") is not filenotify message in "
                                               "QemuFileDetectTask::CheckSensitiveFile"});
    }
}

TEST_F(FileChecks, SkipAMessageThatOnlyClaimsToBeAFileEventSilently) {
    Check({std::make_shared<Message>("filenotify")});
    EXPECT_TRUE(m_log.Texts(kError).empty());
}

TEST_F(FileChecks, RefuseAPidOrMaskBelowOne) {
    Check({Event(0, 32, "/x"), Event(100, 0, "/x"), Event(-1, -1, "/x")});
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"MsgData(pid:0,filepath:/x,filemask:32) is error in CheckSensitiveFile",
                       "MsgData(pid:100,filepath:/x,filemask:0) is error in CheckSensitiveFile",
                       "MsgData(pid:-1,filepath:/x,filemask:-1) is error in CheckSensitiveFile"}));
    EXPECT_EQ(Lines("filePath:(/x) is not a file"), 0U);
}

TEST_F(FileChecks, ByDirectCallSayWhetherItCameToAnAlarm) {
    FileNotifyMessage sensitive(100, 32, m_secret);
    FileNotifyMessage allowed(100, 32, m_allowed);
    FileNotifyMessage wrong(0, 32, m_secret);
    EXPECT_EQ(m_task->FileNotifyMessageAction(&sensitive), 0);
    EXPECT_EQ(m_task->FileNotifyMessageAction(&sensitive), 0) << "a repeat too";
    EXPECT_EQ(m_task->FileNotifyMessageAction(&allowed), -1);
    EXPECT_TRUE(m_log.Texts(kError).empty());
    EXPECT_EQ(m_task->FileNotifyMessageAction(&wrong), -1);
    EXPECT_EQ(m_log.Texts(kError).size(), 1U);
    m_log.Clear();
    EXPECT_EQ(m_task->FileNotifyMessageAction(nullptr), -1);
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(FileChecks, DropWhatIsNoFile) {
    const std::string missing = m_folder / "missing";
    EXPECT_FALSE(Access(100, m_folder.Path()));
    EXPECT_FALSE(Access(100, missing));
    EXPECT_FALSE(Access(100, "/dev/null"));
    EXPECT_EQ(Lines("filePath:(" + m_folder.Path() + ") is not a file"), 1U);
    EXPECT_EQ(Lines("filePath:(" + missing + ") is not a file"), 1U);
    EXPECT_EQ(Lines("File:(" + missing + ") is filterd"), 1U);
    EXPECT_EQ(m_processes.Lookups(), 0);
}

/// A file of the host. One that was not there is made, and removed again.
class HostFile {
public:
    explicit HostFile(const std::string& path)
        : m_path(path), m_mine(!std::filesystem::exists(path)) {
        if (m_mine) {
            const std::ofstream made(path);
        }
    }
    ~HostFile() {
        std::error_code ignored;
        if (m_mine) {
            std::filesystem::remove(m_path, ignored);
        }
    }
    HostFile(const HostFile&) = delete;
    HostFile& operator=(const HostFile&) = delete;

private:
    const std::string m_path;
    const bool m_mine;
};

TEST_F(FileChecks, IgnoreAFileThatIsOrBeginsAnEntryOfTheirList) {
    for (const std::string path :
         {"/etc/system-fips", "/etc/system-fip", "/usr/share/qem", "/usr/pc-bios"}) {
        if (std::filesystem::is_directory(path)) {
            continue;  // a QEMU of this host has its data there
        }
        const HostFile file(path);
        EXPECT_TRUE(m_task->QuickFilterFile(path)) << path;
        EXPECT_EQ(Lines("filePath:(" + path + ") is ignore file"), 1U);
    }
}

TEST_F(FileChecks, DoNotIgnoreAFileThatOnlyBeginsAsAnEntryDoes) {
    const HostFile file("/etc/system-fips.d");
    EXPECT_FALSE(m_task->QuickFilterFile("/etc/system-fips.d"));
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(FileChecks, DoNotIgnoreFilesBelowAnIgnoredDirectory) {
    EXPECT_FALSE(m_task->QuickFilterFile("/usr/share/dict/../../bin/env"));
    if (std::filesystem::exists("/usr/share/qemu/keymaps/en-us")) {
        EXPECT_FALSE(m_task->QuickFilterFile("/usr/share/qemu/keymaps/en-us"));
    }
}

TEST_F(FileChecks, JudgeTheMachineByItsOwnRule) {
    EXPECT_TRUE(Access(100, m_secret));
    EXPECT_FALSE(Access(100, m_allowed));
    EXPECT_EQ(Alarms(), 1U);
}

TEST_F(FileChecks, JudgeAChildByTheMachinesRuleUnderItsOwnName) {
    EXPECT_TRUE(Access(200, m_secret));
    ASSERT_EQ(Alarms(), 1U);
    const Json::Value alarm = m_agent.Reporter().Alarms()[0];
    EXPECT_EQ(alarm["process_info"][0]["process_name"].asString(), "cat");
    EXPECT_EQ(alarm["process_info"][0]["process_pid"].asInt(), 200);
    EXPECT_EQ(alarm["forensic_info"]["monitor_process"].asString(), "qemu-kvm");
    EXPECT_EQ(alarm["resource_info"]["vm_name"].asString(), "vm-01");
    EXPECT_EQ(Lines("Process(name:cat,pid:200) access sensitive file:(" + m_secret + ") "), 1U);
}

TEST_F(FileChecks, JudgeAParentOnceKnownUnderTheNameOfTheMachine) {
    m_processes.Add(300, "helper", 200);
    EXPECT_TRUE(Access(300, m_secret));
    EXPECT_TRUE(Access(200, m_secret));
    ASSERT_EQ(Alarms(), 2U);
    const std::vector<Json::Value> alarms = m_agent.Reporter().Alarms();
    EXPECT_EQ(alarms[0]["process_info"][0]["process_name"].asString(), "helper");
    EXPECT_EQ(alarms[1]["process_info"][0]["process_name"].asString(), "qemu-kvm");
    EXPECT_EQ(alarms[1]["process_info"][0]["process_pid"].asInt(), 200);
    EXPECT_EQ(alarms[1]["forensic_info"]["monitor_process"].asString(), "qemu-kvm");
}

TEST_F(FileChecks, SayThatAProcessBelongsToNoMachine) {
    m_processes.Add(300, "cat", 299);
    m_processes.Add(299, "bash", 1);
    EXPECT_FALSE(Access(300, m_secret));
    EXPECT_EQ(Lines("The process(300) that accesses the file(" + m_secret +
                    ") is not a monitoring process."),
              1U);
}

TEST_F(FileChecks, SayNothingOfAProcessWithoutAParent) {
    m_processes.Add(300, "init", 0);
    m_log.Clear();
    EXPECT_FALSE(Access(300, m_secret));
    EXPECT_TRUE(m_log.Lines().empty());
    EXPECT_FALSE(Access(kNobody, m_secret));
    EXPECT_FALSE(m_log.Contains("is not a monitoring process"));
}

TEST_F(FileChecks, LookAtAParentThatIsTheFirstProcessOfAll) {
    m_processes.Add(300, "daemon", 1);
    m_processes.Add(1, "init", 0);
    EXPECT_FALSE(Access(300, m_secret));
    EXPECT_EQ(Lines("The process(300) that accesses the file(" + m_secret +
                    ") is not a monitoring process."),
              1U);
    m_processes.Add(1, "qemu-kvm", 0);
    EXPECT_TRUE(Access(300, m_secret));
}

TEST_F(FileChecks, AskNobodyWithoutAPolicy) {
    OpenFileTaskPtr task = new OpenFileTask;
    EXPECT_FALSE(task->IsMonitorProcess("qemu-kvm"));
    EXPECT_FALSE(task->IsSenstiveFileAccess("qemu-kvm", "/x"));
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"m_featurePolicy is null pointer in QemuFileDetectTask::IsMonitorProcess",
                       "m_featurePolicy is null pointer in "
                       "QemuFileDetectTask::IsSenstiveFileAccess"}));
}

TEST_F(FileChecks, AreSilentUnderAPolicyOfAnotherKind) {
    m_task->AttachFeaturePolicy(std::make_shared<Framework::FeaturePolicy>("other"));
    EXPECT_FALSE(m_task->IsMonitorProcess("qemu-kvm"));
    EXPECT_FALSE(m_task->IsSenstiveFileAccess("qemu-kvm", "/x"));
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(FileChecks, NameTheFirstKindOfAccessInTheirOrder) {
    const std::map<unsigned int, std::string> names = {
        {1, "access"},      {2, "modify"},          {8, "close"},  {16, "close"},
        {32, "open"},       {1 + 2, "access"},      {34, "open"},  {2 + 8, "modify"},
        {32 + 1, "access"}, {8 + 16, "close"},      {4, "unkonw"}, {64, "unkonw"},
        {4 + 16, "close"},  {1 + 32 + 16, "access"}};
    for (const auto& [mask, name] : names) {
        std::string action;
        m_task->GetFileAction(mask, action);
        EXPECT_EQ(action, name) << mask;
    }
}

}  // namespace
