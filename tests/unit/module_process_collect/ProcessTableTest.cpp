#include "ProcessTable.h"

#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace ProcessCollect;
using Engine::ProcsMessage;
using Found = ProcessTable::Found;
using News = ProcessTable::News;

/// A moment since boot that /proc can tell from its neighbours.
std::uint64_t Tick(std::uint64_t ticks) { return ticks * ProcStatReader::TickNanoseconds(); }

RunMarks Marks(std::uint64_t run) { return {run, run}; }

class ProcessTableTest : public testing::Test {
protected:
    explicit ProcessTableTest(std::size_t maxEnded = 100) : m_table(maxEnded) {}

    News Fork(int pid, int parent, std::uint64_t start) {
        ProcessEvent event;
        event.m_type = ProcsMessage::FORK;
        event.m_pid = pid;
        event.m_parentPid = parent;
        event.m_startTime = start;
        event.m_comm = "comm";
        return m_table.Apply(event, m_now, m_info);
    }
    News Exec(int pid, int parent, std::uint64_t start, const std::string& path,
              std::uint64_t run = 1) {
        const std::string arguments = path + '\0' + "x" + '\0';
        ProcessEvent event;
        event.m_type = ProcsMessage::EXEC;
        event.m_pid = pid;
        event.m_parentPid = parent;
        event.m_startTime = start;
        event.m_comm = std::string_view(path).substr(path.rfind('/') + 1);
        event.m_exePath = path;
        event.m_arguments = arguments;
        event.m_marks = Marks(run);
        return m_table.Apply(event, m_now, m_info);
    }
    News Exit(int pid, std::uint64_t start = 0) {
        ProcessEvent event;
        event.m_type = ProcsMessage::EXIT;
        event.m_pid = pid;
        event.m_startTime = start;
        return m_table.Apply(event, m_now, m_info);
    }
    Found Merge(int pid, int parent, std::uint64_t start, std::uint64_t run,
                const std::string& name = "found") {
        ProcSnapshot snapshot;
        snapshot.m_pid = pid;
        snapshot.m_parentPid = parent;
        snapshot.m_startTime = start;
        snapshot.m_image = MakeImageAtExec(name, "/bin/" + name, name + '\0', Marks(run));
        return m_table.Merge(snapshot, m_sequence, m_info);
    }
    void Scanned() {
        m_table.BeginScan();
        m_table.EndScan(m_now);
    }

    bool Knows(int pid) {
        SDK::ProcessUtils::procRecord record;
        return m_table.Lookup(pid, record);
    }
    SDK::ProcessUtils::procRecord Look(int pid) {
        SDK::ProcessUtils::procRecord record;
        EXPECT_TRUE(m_table.Lookup(pid, record)) << pid;
        return record;
    }

    ProcessTable m_table;
    ProcessTable::Info m_info;
    std::int64_t m_now = 1000;
    std::uint64_t m_sequence = UINT64_MAX;  // by default nothing has happened since
};

TEST_F(ProcessTableTest, AForkedChildRunsItsParentsProgram) {
    Exec(10, 1, Tick(5), "/bin/sh");
    EXPECT_EQ(Fork(11, 10, Tick(6)), News::KNOWN);
    EXPECT_EQ(m_info.m_pid, 11);
    EXPECT_EQ(m_info.m_ppid, 10);
    EXPECT_EQ(m_info.m_name, "sh");
    EXPECT_EQ(m_info.m_parentName, "sh");
    EXPECT_EQ(m_info.m_cmdline, "/bin/sh x");
    EXPECT_EQ(m_info.m_startTime, Tick(6));
}

TEST_F(ProcessTableTest, AChildOfAnUnknownParentHasTheKernelsName) {
    Fork(11, 10, Tick(6));
    EXPECT_EQ(m_info.m_name, "comm");
    EXPECT_EQ(m_info.m_parentName, "");
}

TEST_F(ProcessTableTest, AnExecGivesANewProgramAndKeepsTheForkingParent) {
    Fork(11, 10, Tick(6));
    EXPECT_EQ(Exec(11, 1, Tick(6), "/usr/bin/id"), News::KNOWN);
    EXPECT_EQ(m_info.m_ppid, 10) << "the kernel's parent may be init by now";
    EXPECT_EQ(m_info.m_exePath, "/usr/bin/id");
}

TEST_F(ProcessTableTest, AnExecOfAnUnknownProcessIsItsStart) {
    EXPECT_EQ(Exec(11, 10, Tick(6), "/usr/bin/id"), News::STARTED);
    EXPECT_EQ(m_info.m_ppid, 10);
}

TEST_F(ProcessTableTest, AProcessThatEndedIsStillKnownForAMinute) {
    Exec(11, 10, Tick(6), "/usr/bin/id");
    EXPECT_EQ(Exit(11, Tick(6)), News::KNOWN);
    EXPECT_EQ(m_info.m_name, "id");
    EXPECT_EQ(m_table.LiveCount(), 0U);
    EXPECT_EQ(m_table.EndedCount(), 1U);
    m_now += ProcessTable::KEEP_SECONDS - 1;
    m_table.Purge(m_now);
    EXPECT_EQ(Look(11).m_status.m_name, "id");
    EXPECT_EQ(Look(11).m_cmdline, "/usr/bin/id x");
    m_table.Purge(m_now + 1);
    EXPECT_FALSE(Knows(11));
    EXPECT_EQ(m_table.EndedCount(), 0U);
}

TEST_F(ProcessTableTest, TheEndOfAnUnknownProcessIsToldAndKeepsItFromComingBack) {
    EXPECT_EQ(Exit(11, Tick(6)), News::UNKNOWN);
    EXPECT_FALSE(Knows(11));
    m_table.BeginScan();
    EXPECT_EQ(Merge(11, 1, Tick(6), 1), Found::ENDED);
}

TEST_F(ProcessTableTest, AnEndIsToldOnce) {
    Exec(11, 10, Tick(6), "/usr/bin/id");
    Exit(11, Tick(6));
    EXPECT_EQ(Exit(11, Tick(6)), News::REPEATED);
}

TEST_F(ProcessTableTest, TheLateEndOfAnEarlierProcessDoesNotEndTheNextOne) {
    Fork(11, 10, Tick(9));
    EXPECT_EQ(Exit(11, Tick(6)), News::REPEATED);
    EXPECT_EQ(m_table.LiveCount(), 1U);
}

TEST_F(ProcessTableTest, APidThatIsUsedAgainIsAnotherProcess) {
    Exec(11, 10, Tick(6), "/usr/bin/id");
    Exit(11, Tick(6));
    Fork(11, 20, Tick(9));
    EXPECT_EQ(Look(11).m_status.m_ppid, 20);
    EXPECT_EQ(m_table.EndedCount(), 0U);
    m_table.Purge(m_now + ProcessTable::KEEP_SECONDS);
    EXPECT_TRUE(Knows(11)) << "the place of the one that ended is stale";
}

TEST_F(ProcessTableTest, ALateExecOfAProcessThatEndedIsARepeat) {
    Exec(11, 10, Tick(6), "/usr/bin/id");
    Exit(11, Tick(6));
    EXPECT_EQ(Exec(11, 10, Tick(6), "/usr/bin/id"), News::REPEATED);
}

TEST_F(ProcessTableTest, TheSnapshotHasLiveProcessesOnlyAndIsEmptyBeforeTheFirstScan) {
    Fork(10, 1, Tick(1));
    Fork(11, 1, Tick(1));
    Exit(11);
    std::map<int, std::shared_ptr<ProcessTable::Info>> procs;
    m_table.Snapshot(procs);
    EXPECT_TRUE(procs.empty());
    Scanned();
    Fork(12, 1, Tick(2));
    m_table.Snapshot(procs);
    ASSERT_EQ(procs.size(), 1U);
    EXPECT_EQ(procs.begin()->first, 12) << "10 was not found by the scan: it has vanished";
}

TEST_F(ProcessTableTest, AScanFindsAProcessWithAProgramOfItsOwn) {
    m_table.BeginScan();
    EXPECT_EQ(Merge(10, 1, Tick(1), 1, "init"), Found::STARTED);
    EXPECT_EQ(Merge(11, 10, Tick(2), 2, "sshd"), Found::STARTED);
    EXPECT_EQ(m_info.m_parentName, "init");
    EXPECT_EQ(Merge(12, 11, Tick(3), 2, "sshd"), Found::FORKED) << "its parent's run";
}

TEST_F(ProcessTableTest, AScanTellsNothingOfWhatIsKnown) {
    Exec(11, 10, Tick(6), "/usr/bin/id", 3);
    m_table.BeginScan();
    EXPECT_EQ(Merge(11, 10, Tick(6), 3), Found::SAME);
    EXPECT_TRUE(m_table.EndScan(m_now).empty());
}

TEST_F(ProcessTableTest, AScanSuspectsAnotherProgramUnlessAnEventCameLater) {
    Exec(11, 10, Tick(6), "/usr/bin/id", 3);
    m_table.BeginScan();
    m_sequence = m_table.Sequence();
    EXPECT_EQ(Merge(11, 10, Tick(6), 4), Found::SUSPECT);
    Exec(11, 10, Tick(6), "/usr/bin/env", 5);
    EXPECT_EQ(Merge(11, 10, Tick(6), 4), Found::SAME) << "/proc was read before that";
}

TEST_F(ProcessTableTest, ASuspectIsConfirmedByASecondLook) {
    Exec(11, 10, Tick(6), "/usr/bin/id", 3);
    ProcSnapshot snapshot;
    snapshot.m_pid = 11;
    snapshot.m_startTime = Tick(6);
    snapshot.m_image = MakeImageAtExec("env", "/usr/bin/env", "env", Marks(4));
    EXPECT_TRUE(m_table.ConfirmExec(snapshot, m_sequence, m_info));
    EXPECT_EQ(m_info.m_name, "env");
    EXPECT_FALSE(m_table.ConfirmExec(snapshot, m_sequence, m_info)) << "it is known now";
}

TEST_F(ProcessTableTest, TheEventOfAnExecThatAScanToldIsARepeat) {
    m_table.BeginScan();
    ProcSnapshot snapshot;
    snapshot.m_pid = 11;
    snapshot.m_startTime = Tick(6);
    snapshot.m_image =
        MakeImageAtExec("id", "/usr/bin/id", std::string("/usr/bin/id\0x\0", 14), Marks(7));
    EXPECT_EQ(m_table.Merge(snapshot, m_sequence, m_info), Found::STARTED);
    EXPECT_EQ(Exec(11, 10, Tick(6), "/usr/bin/id", 7), News::REPEATED);
    EXPECT_EQ(Exec(11, 10, Tick(6), "/usr/bin/id", 8), News::KNOWN) << "another run";
}

TEST_F(ProcessTableTest, TheEventOfAForkThatAScanToldOnlyAddsWhoForked) {
    m_table.BeginScan();
    Merge(11, 1, Tick(6), 1);
    EXPECT_EQ(Fork(11, 10, Tick(6) + 5), News::REPEATED);
    EXPECT_EQ(Look(11).m_status.m_ppid, 10);
}

TEST_F(ProcessTableTest, AScanEndsWhatHasVanished) {
    Fork(11, 10, Tick(6));
    Scanned();
    Fork(12, 10, Tick(7));
    m_table.BeginScan();
    Merge(12, 10, Tick(7), 0);
    const auto vanished = m_table.EndScan(m_now);
    EXPECT_TRUE(vanished.empty()) << "11 ended with the scan before";
    m_table.BeginScan();
    const auto next = m_table.EndScan(m_now);
    ASSERT_EQ(next.size(), 1U);
    EXPECT_EQ(next[0].m_pid, 12);
    EXPECT_EQ(m_table.LiveCount(), 0U);
}

TEST_F(ProcessTableTest, WhatStartsDuringAScanIsNotTakenForVanished) {
    m_table.BeginScan();
    Fork(11, 10, Tick(6));
    EXPECT_TRUE(m_table.EndScan(m_now).empty());
    EXPECT_EQ(m_table.LiveCount(), 1U);
}

TEST_F(ProcessTableTest, AParentThatEndedStaysTheParentUntilItIsForgotten) {
    Exec(10, 1, Tick(1), "/bin/sh");
    Fork(11, 10, Tick(2));
    Exit(10, Tick(1));
    EXPECT_EQ(Look(11).m_status.m_ppid, 10);
    EXPECT_TRUE(m_table.Purge(m_now + ProcessTable::KEEP_SECONDS - 1).empty());
    const auto orphans = m_table.Purge(m_now + ProcessTable::KEEP_SECONDS);
    ASSERT_EQ(orphans.size(), 1U);
    EXPECT_EQ(orphans[0].m_pid, 11);
    m_table.SetParent(orphans[0], 1);
    EXPECT_EQ(Look(11).m_status.m_ppid, 1);
}

TEST_F(ProcessTableTest, AYoungerProcessWithTheParentsPidIsNoParent) {
    Exec(10, 1, Tick(1), "/bin/sh");
    Fork(11, 10, Tick(2));
    Exit(10, Tick(1));
    Fork(10, 0, Tick(9));
    const auto orphans = m_table.Purge(m_now);
    ASSERT_EQ(orphans.size(), 1U);
    EXPECT_EQ(orphans[0].m_pid, 11);
}

TEST_F(ProcessTableTest, NobodyIsHisOwnAncestorWhenAPidIsUsedAgain) {
    Exec(1, 0, Tick(0) + 1, "/sbin/init");
    Exec(10, 1, Tick(1), "/bin/sh");
    Fork(11, 10, Tick(2));
    Exit(10, Tick(1));
    // The child's child gets the pid of its grandparent.
    Fork(10, 11, Tick(9));
    EXPECT_EQ(m_info.m_ppid, 11);
    EXPECT_EQ(Look(10).m_status.m_ppid, 11);
    EXPECT_EQ(Look(11).m_status.m_ppid, 1);
    Exit(11);
    EXPECT_EQ(m_info.m_ppid, 1);
    EXPECT_EQ(m_info.m_parentName, "init");
    EXPECT_EQ(Look(11).m_status.m_ppid, 1) << "also when it has ended";
}

TEST_F(ProcessTableTest, AnOrphanThatWasReplacedMeanwhileKeepsItsOwnParent) {
    Fork(11, 10, Tick(2));
    m_table.SetParent({11, Tick(1)}, 99);
    EXPECT_EQ(Look(11).m_status.m_ppid, 10);
}

class FullProcessTable : public ProcessTableTest {
protected:
    FullProcessTable() : ProcessTableTest(2) {}
};

TEST_F(FullProcessTable, ForgetsTheOldestEndsCountedAndLoggedOnce) {
    const TestSupport::CapturedLog log;
    for (int pid = 10; pid < 14; ++pid) {
        Exec(pid, 1, Tick(static_cast<std::uint64_t>(pid)), "/usr/bin/id");
        Exit(pid);
    }
    EXPECT_FALSE(Knows(10));
    EXPECT_FALSE(Knows(11));
    EXPECT_TRUE(Knows(12));
    EXPECT_TRUE(Knows(13));
    EXPECT_EQ(m_table.ForgottenEarly(), 2U);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_WARNING,
                        "More than 2 processes ended within 60 seconds. The oldest of them are "
                        "forgotten early, 1 so far."),
              1U);
    EXPECT_EQ(log.Lines().size(), 1U);
}

}  // namespace
