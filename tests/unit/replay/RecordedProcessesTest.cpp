#include "RecordedProcesses.h"

#include "RecordingText.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Agent::RecordedEvent;
using Info = Replay::RecordedProcesses::Info;
using Strings = std::vector<std::string>;

constexpr std::int64_t kSecond = 1000000;

Info Process(int pid, const std::string& name, std::uint64_t start = 1) {
    Info info;
    info.m_pid = pid;
    info.m_ppid = 1;
    info.m_name = name;
    info.m_cmdline = name + " x";
    info.m_startTime = start;
    return info;
}

class RecordedProcesses : public testing::Test {
protected:
    /// What a look-up tells: "name ppid cmdline".
    std::string Lookup(int pid, std::int64_t now = 0) const {
        SDK::ProcessUtils::procRecord record;
        EXPECT_TRUE(m_processes.Lookup(pid, record, now));
        EXPECT_EQ(record.m_status.m_pid, pid);
        return record.m_status.m_name + ' ' + std::to_string(record.m_status.m_ppid) + ' ' +
               record.m_cmdline;
    }

    Strings Living() const {
        Replay::RecordedProcesses::Processes processes;
        m_processes.Snapshot(processes);
        Strings names;
        for (const auto& [pid, info] : processes) {
            EXPECT_EQ(info->m_pid, pid);
            names.push_back(info->m_name);
        }
        return names;
    }

    Replay::RecordedProcesses m_processes;
};

constexpr const char* kUnknown = " 0 ";

TEST_F(RecordedProcesses, AreWhatWasToldOfThemLast) {
    m_processes.Put(Process(7, "sh"));
    EXPECT_EQ(Lookup(7), "sh 1 sh x");
    m_processes.Put(Process(7, "id"));
    EXPECT_EQ(Lookup(7), "id 1 id x");
    EXPECT_EQ(Living(), Strings{"id"});
}

TEST_F(RecordedProcesses, AreNeverLookedForOnTheHostThatReplays) {
    EXPECT_EQ(Lookup(1), kUnknown);
    EXPECT_EQ(Lookup(-5), kUnknown);
}

TEST_F(RecordedProcesses, AreKnownForAMinuteAfterTheirEnd) {
    m_processes.Put(Process(7, "sh"));
    const auto ended = m_processes.End(7, 100 * kSecond);
    ASSERT_NE(ended, nullptr);
    EXPECT_EQ(ended->m_name, "sh");
    EXPECT_EQ(Living(), Strings());
    EXPECT_EQ(Lookup(7, 159 * kSecond), "sh 1 sh x");
    EXPECT_EQ(Lookup(7, 160 * kSecond), kUnknown);
}

TEST_F(RecordedProcesses, EndOnce) {
    EXPECT_EQ(m_processes.End(7, 0), nullptr);
    m_processes.Put(Process(7, "sh"));
    EXPECT_NE(m_processes.End(7, 0), nullptr);
    EXPECT_EQ(m_processes.End(7, 0), nullptr);
}

TEST_F(RecordedProcesses, WhosePidIsUsedAgainDoNotTakeTheNewOneAlong) {
    m_processes.Put(Process(7, "sh"));
    m_processes.End(7, 0);
    m_processes.Put(Process(7, "new"));
    m_processes.Put(Process(8, "other"));
    m_processes.End(8, 100 * kSecond);
    EXPECT_EQ(Lookup(7, 100 * kSecond), "new 1 new x");
    EXPECT_EQ(Living(), Strings{"new"});
}

TEST_F(RecordedProcesses, AreCopiesThatMayBeWrittenTo) {
    m_processes.Put(Process(7, "sh"));
    Replay::RecordedProcesses::Processes processes;
    m_processes.Snapshot(processes);
    processes.at(7)->m_name = "changed";
    EXPECT_EQ(Living(), Strings{"sh"});
}

TEST_F(RecordedProcesses, TellWhatMustHaveHappenedBeforeALaterSnapshot) {
    for (const Info& info : {Process(1, "init"), Process(2, "gone"), Process(3, "sh"),
                             Process(4, "old", 1), Process(5, "ended")}) {
        m_processes.Put(info);
    }
    m_processes.End(5, 0);
    Strings told;
    for (const RecordedEvent& event : m_processes.Difference(
             {Process(1, "init"), Process(3, "id"), Process(4, "old", 2), Process(6, "new")})) {
        told.push_back(Agent::RecordingText::Name(event.m_kind) + ' ' +
                       std::to_string(event.m_process.m_pid));
    }
    EXPECT_EQ(told, (Strings{"exec 3", "fork 4", "exec 4", "fork 6", "exec 6", "exit 2"}));
}

}  // namespace
