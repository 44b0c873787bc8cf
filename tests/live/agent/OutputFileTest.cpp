// Alarms in files: rotated by size or by others, and on a full disk.

#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/SmallDisk.h"
#include "support/WaitUntil.h"

#include <json/writer.h>

#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

namespace {

namespace fs = std::filesystem;

using TestSupport::ChildProcess;
using TestSupport::ReadText;
using TestSupport::WaitUntil;

class OutputFile : public LiveTest {
protected:
    /// What the agent says of its output: alarms that were seen, delivered, or lost for a reason.
    static Json::Value Books(const Agent& agent) {
        const ChildProcess::Result status =
            ChildProcess::Run({BUILD_FOLDER "/bin/vmescape-agent", "status", "--json", "--socket",
                               agent.StatusSocket()});
        Json::Value document;
        SDK::JsonUtils::ParseJsonStr(status.m_output.c_str(), status.m_output.length(), document);
        for (const Json::Value& book : document["books"]) {
            if (book["name"] == "alarms") {
                return book;
            }
        }
        return {};
    }
    /// Waits until the output has done with as many alarms as these.
    static bool WaitForAlarms(const Agent& agent, unsigned count) {
        return WaitUntil(
            [&] {
                const Json::Value book = Books(agent);
                return book["seen"].asUInt() >= count && book["waiting"].asUInt() == 0;
            },
            std::chrono::seconds(60));
    }

    /// What became of all alarms, as an agent says when it ends.
    struct Totals {
        std::size_t m_written = 0;
        std::size_t m_lost = 0;
    };
    static Totals StopAndCount(Agent& agent) {
        EXPECT_EQ(agent.Stop(SIGTERM), 0);
        std::smatch totals;
        EXPECT_TRUE(std::regex_search(
            agent.Log(), totals,
            std::regex("ends: ([0-9]+) alarms written, ([0-9]+) dropped, ([0-9]+) failed")))
            << agent.Log();
        return {std::stoul(totals[1]), std::stoul(totals[2]) + std::stoul(totals[3])};
    }

    /// The alarms in all files of a folder that begin with a name. Each line is whole, and there
    /// once.
    static std::set<std::string> Ids(const std::string& folder) {
        std::set<std::string> ids;
        for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
            if (entry.path().filename().string().rfind("alarms", 0) != 0) {
                continue;
            }
            std::istringstream lines(ReadText(entry.path().string()));
            for (std::string line; std::getline(lines, line);) {
                Json::Value alarm;
                EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.c_str(), line.length(), alarm), 0)
                    << line;
                EXPECT_TRUE(ids.insert(alarm["event_id"].asString()).second) << line;
            }
        }
        return ids;
    }

    /// Alarms of about a thousand bytes each, and one more of the shell.
    static void Storm(const Qemu& qemu, int count) {
        qemu.RunShell("i=0; while [ $i -lt " + std::to_string(count) +
                      " ]; do i=$((i+1)); /usr/bin/true $i; done; exit 1");
    }

    static bool HasOpen(Agent& agent, const std::string& path) {
        const std::string folder = "/proc/" + std::to_string(agent.Child().Pid()) + "/fd";
        const fs::directory_iterator open(folder);
        return std::any_of(begin(open), end(open), [&path](const fs::directory_entry& entry) {
            std::error_code error;
            return fs::read_symlink(entry.path(), error) == path;
        });
    }
};

TEST_F(OutputFile, ThatWasMovedAwayIsLetGoOnSighupWithoutAnAlarmBetween) {
    const TestSupport::TemporaryFolder folder;
    Agent agent(BUILD_FOLDER, DenyList(), {"--output", "file:" + folder / "alarms"});
    ASSERT_TRUE(HasOpen(agent, folder / "alarms"));
    fs::rename(folder / "alarms", folder / "moved");
    ASSERT_TRUE(HasOpen(agent, folder / "moved"));
    agent.Child().Signal(SIGHUP);
    EXPECT_TRUE(WaitUntil([&] { return !HasOpen(agent, folder / "moved"); }));
    EXPECT_TRUE(HasOpen(agent, folder / "alarms"));
    fs::remove(folder / "alarms");
    agent.Child().Signal(SIGHUP);
    EXPECT_TRUE(WaitUntil([&] { return !HasOpen(agent, folder / "alarms (deleted)"); }));
    const Qemu qemu({"-name", "guest=vm-01"});
    qemu.RunShell("id");
    EXPECT_TRUE(WaitUntil([&] { return !ReadText(folder / "alarms").empty(); }));
    EXPECT_EQ(ReadText(folder / "moved"), "");
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
}

TEST_F(OutputFile, IsRotatedBySizeWithoutLosingOrTearingALine) {
    constexpr unsigned kAlarms = 2500;
    const TestSupport::TemporaryFolder folder;
    Agent agent(BUILD_FOLDER, DenyList(),
                {"--output", "file:" + folder / "alarms", "--log-level", "information", "-o",
                 "report.file.megabytes=1"});
    const Qemu storm({"-name", "guest=vm-storm"});
    Storm(storm, kAlarms);
    ASSERT_TRUE(WaitForAlarms(agent, kAlarms)) << Books(agent);
    const Totals totals = StopAndCount(agent);
    EXPECT_GE(totals.m_written, kAlarms);
    EXPECT_EQ(totals.m_lost, 0U);
    EXPECT_EQ(Ids(folder.Path()).size(), totals.m_written);
    EXPECT_TRUE(fs::exists(folder / "alarms.1"));
    for (const fs::directory_entry& entry : fs::directory_iterator(folder.Path())) {
        EXPECT_LE(fs::file_size(entry), 1U << 20);
    }
}

/// A disk that is small enough to be full soon.
class OutputFileOnAFullDisk : public OutputFile {
protected:
    void SetUp() override {
        LiveTest::SetUp();
        Need(TestSupport::SmallDisk::Missing());
    }
};

TEST_F(OutputFileOnAFullDisk, DropsAndCountsByDefault) {
    const TestSupport::SmallDisk disk(64);
    Agent agent(BUILD_FOLDER, DenyList(), {"--output", "file:" + disk / "alarms"});
    const Qemu storm({"-name", "guest=vm-storm"});
    Storm(storm, 150);
    ASSERT_TRUE(WaitForAlarms(agent, 150)) << Books(agent);
    const Totals totals = StopAndCount(agent);
    EXPECT_GT(totals.m_lost, 50U);
    EXPECT_GE(totals.m_written + totals.m_lost, 150U);
    EXPECT_EQ(Ids(disk.Path()).size(), totals.m_written);
}

TEST_F(OutputFileOnAFullDisk, WaitsForRoomWhenItIsToldTo) {
    const TestSupport::SmallDisk disk(64);
    Agent agent(BUILD_FOLDER, DenyList(),
                {"--output", "file:" + disk / "alarms", "--log-level", "information", "-o",
                 "report.file.full=wait"});
    disk.Fill();
    const Qemu storm({"-name", "guest=vm-storm"});
    Storm(storm, 20);
    ASSERT_TRUE(WaitUntil([&] { return Books(agent)["seen"].asUInt() >= 20; }));
    EXPECT_EQ(Books(agent)["delivered"].asUInt(), 0U);
    disk.Empty();
    ASSERT_TRUE(WaitForAlarms(agent, 20)) << Books(agent);
    const Totals totals = StopAndCount(agent);
    EXPECT_GE(totals.m_written, 20U);
    EXPECT_EQ(totals.m_lost, 0U);
    EXPECT_EQ(Ids(disk.Path()).size(), totals.m_written);
}

TEST_F(OutputFileOnAFullDisk, RemovesTheOldestRotatedFileWhenItIsToldTo) {
    const TestSupport::SmallDisk disk(64);
    Agent agent(BUILD_FOLDER, DenyList(),
                {"--output", "file:" + disk / "alarms", "--log-level", "information", "-o",
                 "report.file.full=rotate"});
    const Qemu early({"-name", "guest=vm-storm"});
    Storm(early, 20);
    ASSERT_TRUE(WaitForAlarms(agent, 20)) << Books(agent);
    // As log rotation does.
    fs::rename(disk / "alarms", disk / "alarms.1");
    disk.Fill();
    const Qemu later({"-name", "guest=vm-storm"});
    later.RunShell("id");
    EXPECT_TRUE(WaitUntil([&] {
        return ReadText(disk / "alarms").find("\"process_cmdline\":\"id\"") != std::string::npos;
    }));
    EXPECT_FALSE(fs::exists(disk / "alarms.1"));
    EXPECT_TRUE(agent.WaitForLog("has no space: " + disk / "alarms.1" + " with "));
    EXPECT_EQ(StopAndCount(agent).m_lost, 0U);
}

}  // namespace
