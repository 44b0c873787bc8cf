// Alarms reach a real journal of systemd.

#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <json/writer.h>

#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <sstream>

namespace {

using TestSupport::ChildProcess;
using TestSupport::WaitUntil;

constexpr const char* kJournald = "/lib/systemd/systemd-journald";

// Makes what the journal and its readers take for a host without one: nothing is kept beyond the
// test, and the host's journal, kernel log and audit are left alone.
constexpr const char* kHost = R"(
mount -t tmpfs none /run
mkdir -p /run/systemd/journald.conf.d
printf '[Journal]\nStorage=volatile\nAudit=\nReadKMsg=no\nForwardToSyslog=no\nForwardToWall=no\n' \
    >/run/systemd/journald.conf.d/test.conf
printf '%032x\n' 1 >/run/machine-id
mount --bind /run/machine-id /etc/machine-id
echo ready
exec sleep infinity
)";

/// A journal in a mount namespace of its own, and an agent's way into that.
class Journal {
public:
    explicit Journal(const TestSupport::TemporaryFolder& folder)
        : m_folder(folder),
          m_host({"unshare", "--mount", "--propagation", "private", "sh", "-ec", kHost}) {
        EXPECT_TRUE(WaitUntil([this] { return m_host.Output() == "ready\n"; })) << m_host.Errors();
        std::filesystem::create_directory(m_folder / "bin");
        const std::string agent =
            m_folder.Write("bin/vmescape-agent", "#!/bin/sh\nexec nsenter " + Namespace() +
                                                     " " BUILD_FOLDER "/bin/vmescape-agent \"$@\"");
        ::chmod(agent.c_str(), 0755);
    }

    /// A build tree whose agent runs beside the journal.
    const std::string& Build() const { return m_folder.Path(); }

    void Start() {
        m_journald = std::make_unique<ChildProcess>(
            std::vector<std::string>{"nsenter", Namespace(), kJournald});
    }
    void Stop() {
        m_journald->Signal(SIGTERM);
        EXPECT_EQ(m_journald->Wait(), 0);
    }

    /// What was kept of a machine and one of its commands.
    std::vector<Json::Value> Entries(const std::string& vm, const std::string& command) const {
        const ChildProcess::Result read =
            ChildProcess::Run({"nsenter", Namespace(), "journalctl",
                               "--directory=/run/log/journal/00000000000000000000000000000001",
                               "--all", "--output=json", "VMESCAPE_VM=" + vm});
        std::istringstream lines(read.m_output);
        std::vector<Json::Value> entries;
        for (std::string line; std::getline(lines, line);) {
            Json::Value entry = Parse(line);
            if (Parse(
                    entry["VMESCAPE_DOCUMENT"].asString())["process_info"][0]["process_cmdline"] ==
                command) {
                entries.push_back(std::move(entry));
            }
        }
        return entries;
    }

    static Json::Value Parse(const std::string& text) {
        Json::Value value;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), value), 0) << text;
        return value;
    }

private:
    std::string Namespace() const {
        return "--mount=/proc/" + std::to_string(m_host.Pid()) + "/ns/mnt";
    }

    const TestSupport::TemporaryFolder& m_folder;
    ChildProcess m_host;
    std::unique_ptr<ChildProcess> m_journald;
};

class Journald : public LiveTest {
protected:
    void SetUp() override {
        LiveTest::SetUp();
        Need(std::filesystem::exists(kJournald) ? "" : "systemd-journald is missing");
    }
};

TEST_F(Journald, KeepsEveryAlarmOnceAlsoThoseOfATimeWithoutJournal) {
    const TestSupport::TemporaryFolder folder;
    Journal journal(folder);
    journal.Start();
    Agent agent(journal.Build(), DenyList(), {"--output", "journald"});
    const auto count = [&journal](const std::string& command) {
        return journal.Entries("vm-01", command).size();
    };
    {
        const Qemu qemu({"-name", "guest=vm-01"});
        qemu.RunShell("/usr/bin/true before");
        ASSERT_TRUE(WaitUntil([&] { return count("/usr/bin/true before") == 1; })) << agent.Log();
    }
    const Json::Value entry = journal.Entries("vm-01", "/usr/bin/true before").at(0);
    const Json::Value document = Journal::Parse(entry["VMESCAPE_DOCUMENT"].asString());
    EXPECT_EQ(entry["PRIORITY"], "1");
    EXPECT_EQ(entry["SYSLOG_FACILITY"], "10");
    EXPECT_EQ(entry["SYSLOG_IDENTIFIER"], "vmescape-agent");
    EXPECT_EQ(entry["MESSAGE_ID"], "9da43e64b71a476da35ae93e43a748f5");
    EXPECT_EQ(entry["VMESCAPE_CLASS"], document["event_classid"]);
    EXPECT_EQ(entry["VMESCAPE_EVENT_ID"], document["event_id"]);
    EXPECT_EQ(entry["_PID"], std::to_string(agent.Child().Pid()));
    EXPECT_NE(entry["MESSAGE"].asString().find("  vm-01  system/fork  true("), std::string::npos)
        << entry["MESSAGE"];
    journal.Stop();
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.RunShell("/usr/bin/true during");
    EXPECT_TRUE(agent.WaitForLog("no journal at /run/systemd/journal/socket: Connection refused"));
    EXPECT_EQ(count("/usr/bin/true during"), 0U);
    journal.Start();
    EXPECT_TRUE(WaitUntil([&] { return count("/usr/bin/true during") == 1; })) << agent.Log();
    EXPECT_TRUE(agent.WaitForLog("can be written again. 0 alarms failed so far."));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    EXPECT_EQ(count("/usr/bin/true before"), 1U);
    EXPECT_EQ(count("/usr/bin/true during"), 1U);
    journal.Stop();
}

TEST_F(Journald, ThatIsMissingIsSaidAtTheStart) {
    const TestSupport::TemporaryFolder folder;
    Journal journal(folder);
    Agent agent(journal.Build(), DenyList(), {"--output", "journald"});
    EXPECT_TRUE(agent.WaitForLog(
        "Output(journald) cannot be written: no journal at /run/systemd/journal/socket: No such "
        "file or directory"));
    journal.Start();
    EXPECT_TRUE(agent.WaitForLog("Output(journald) can be written again"));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    journal.Stop();
}

}  // namespace
