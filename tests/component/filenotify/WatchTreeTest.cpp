// Which directories are watched, whatever happens to them.

#include "NotifierHarness.h"
#include "support/CapturedLog.h"

#include <sys/mount.h>

namespace {

using namespace FileNotifyTest;
using TestSupport::CapturedLog;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kWarning = Poco::Message::PRIO_WARNING;
constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;

class WatchTree : public NotifierTest {
protected:
    void Rename(const std::string& from, const std::string& to) const {
        std::filesystem::rename(m_folder / from, m_folder / to);
    }
    void Delete(const std::string& name) const { std::filesystem::remove_all(m_folder / name); }

    CapturedLog m_log;
};

TEST_F(WatchTree, MarksADirectoryAndAllBelowIt) {
    Make("top/a/b");
    Make("top/c");
    const std::string deep = File("top/a/b/key");
    Watch(m_folder / "top");
    EXPECT_EQ(Marked(), 4U);
    EXPECT_TRUE(Sees(deep));
    EXPECT_EQ(m_log.Count(kInformation,
                          "Directory(" + m_folder / "top" + ") is watched for task(subscriber)."),
              1U);
    EXPECT_EQ(m_log.Count(kInformation, "4 directories are watched."), 1U);
}

TEST_F(WatchTree, MarksOnlyTheDirectoryWhenItIsNotAskedForAllBelow) {
    Make("top/sub");
    const std::string here = File("top/key");
    const std::string below = File("top/sub/key");
    Watch(m_folder / "top", false);
    EXPECT_EQ(Marked(), 1U);
    EXPECT_TRUE(Sees(here));
    EXPECT_FALSE(Sees(below));
    Make("top/later");
    Settle();
    EXPECT_EQ(Marked(), 1U);
}

TEST_F(WatchTree, FollowsDirectoriesMadeLater) {
    Make("top");
    Watch(m_folder / "top");
    Make("top/a/b/c");
    Settle();
    EXPECT_EQ(Marked(), 4U);
    EXPECT_TRUE(Sees(File("top/a/b/c/key")));
}

TEST_F(WatchTree, FollowsADirectoryThatIsMovedIn) {
    Make("top");
    Make("outside/sub");
    const std::string name = "outside/sub/key";
    File(name);
    Watch(m_folder / "top");
    Rename("outside", "top/inside");
    Settle();
    EXPECT_EQ(Marked(), 3U);
    EXPECT_TRUE(Sees(m_folder / "top/inside/sub/key"));
}

TEST_F(WatchTree, LetsGoOfADirectoryThatIsMovedOut) {
    Make("top/inside/sub");
    File("top/inside/sub/key");
    Watch(m_folder / "top");
    Rename("top/inside", "outside");
    Settle();
    EXPECT_EQ(Marked(), 1U);
    EXPECT_EQ(m_notifier.Tree().StrayMarks(), 0U);
    m_events.clear();
    InChild([&] { ReadFile(m_folder / "outside/sub/key"); });
    Settle();
    EXPECT_TRUE(m_events.empty());
    EXPECT_EQ(m_notifier.GetCounters().m_outside, 0U) << "the mark itself is gone";
}

TEST_F(WatchTree, KnowsADirectoryByItsNewNameAfterARename) {
    Make("top/old/sub");
    File("top/old/sub/key");
    Watch(m_folder / "top");
    Rename("top/old", "top/new");
    Settle();
    EXPECT_EQ(Marked(), 3U);
    EXPECT_TRUE(Sees(m_folder / "top/new/sub/key"));
}

TEST_F(WatchTree, KeepsUpWithDirectoriesThatChangePlacesUnread) {
    // All of it before the notifier looks again: a directory comes to lie below its own old path,
    // where another one was watched.
    Make("top/a/b/c");
    Watch(m_folder / "top");
    Rename("top/a", "top/x");
    Make("top/a");
    Rename("top/x", "top/a/b");
    Make("top/z");
    Rename("top/a/b/b", "top/z/b");
    Settle();
    EXPECT_EQ(Marked(), 6U);  // top, a, a/b, z, z/b, z/b/c
    EXPECT_TRUE(Sees(File("top/a/b/key")));
    EXPECT_TRUE(Sees(File("top/z/b/c/key")));
    EXPECT_TRUE(Sees(File("top/a/key")));
    EXPECT_EQ(m_notifier.Tree().StrayMarks(), 0U);
}

TEST_F(WatchTree, EndsUpRightAfterAnyShuffling) {
    Make("top/d0");
    Watch(m_folder / "top");
    unsigned int random = 1;
    const auto next = [&](std::size_t below) {
        random = random * 1103515245U + 12345U;
        return (random >> 16) % below;
    };
    for (int round = 0; round < 300; ++round) {
        std::vector<std::filesystem::path> dirs;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_folder / "top")) {
            dirs.push_back(entry.path());
        }
        const std::filesystem::path top = m_folder / "top";
        const auto any = [&] { return dirs.empty() ? top : dirs[next(dirs.size())]; };
        std::error_code ignored;
        const std::string name = "d" + std::to_string(next(4));
        switch (next(4)) {
            case 0:
            case 1:
                std::filesystem::create_directory(any() / name, ignored);
                break;
            case 2:
                std::filesystem::rename(any(), any() / name, ignored);
                break;
            default:
                if (dirs.size() > 20) {
                    std::filesystem::remove_all(any(), ignored);
                }
        }
        std::filesystem::create_directory(top, ignored);
        if (next(5) == 0) {
            Settle();
        }
    }
    Settle();
    std::size_t directories = 1;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_folder / "top")) {
        ++directories;
        EXPECT_NE(m_notifier.Tree().FindByPath(entry.path().string()), nullptr) << entry.path();
    }
    EXPECT_EQ(Marked(), directories);
    Unwatch(m_folder / "top");
    EXPECT_EQ(Marked(), 0U);
    EXPECT_EQ(m_notifier.Tree().WatchCount(), 0U);
    EXPECT_EQ(m_notifier.Tree().StrayMarks(), 0U);
}

TEST_F(WatchTree, ForgetsADirectoryThatIsDeleted) {
    Make("top/sub/deeper");
    Watch(m_folder / "top");
    Delete("top/sub");
    Settle();
    EXPECT_EQ(Marked(), 1U);
    Make("top/sub");
    Settle();
    EXPECT_TRUE(Sees(File("top/sub/key")));
}

TEST_F(WatchTree, WatchesADirectoryOnceItAppears) {
    Watch(m_folder / "not/there/yet");
    EXPECT_EQ(Marked(), 0U);
    EXPECT_EQ(m_log.Count(kWarning, "Directory(" + m_folder / "not/there/yet" +
                                        ") cannot be watched for task(subscriber) yet: No such "
                                        "file or directory. It is watched once it is there."),
              1U);
    Make("not");
    Settle();
    Make("not/there/yet/sub");
    Settle();
    EXPECT_EQ(Marked(), 2U);
    EXPECT_TRUE(Sees(File("not/there/yet/sub/key")));
}

TEST_F(WatchTree, WatchesADirectoryOnceItIsMovedIntoPlace) {
    Make("elsewhere/yet");
    Watch(m_folder / "there/yet");
    Rename("elsewhere", "there");
    Settle();
    EXPECT_TRUE(Sees(File("there/yet/key")));
}

TEST_F(WatchTree, WatchesTheDirectoryThatTakesTheRootsPlace) {
    Make("top");
    Watch(m_folder / "top");
    Rename("top", "old");
    Make("top");
    Settle();
    EXPECT_EQ(Marked(), 1U);
    EXPECT_TRUE(Sees(File("top/key")));
    EXPECT_FALSE(Sees(File("old/key")));
}

TEST_F(WatchTree, ComesBackWhenADeletedRootIsMadeAgain) {
    Make("top/sub");
    Watch(m_folder / "top/sub");
    Delete("top");
    Settle();
    EXPECT_EQ(Marked(), 0U);
    Make("top/sub");
    Settle();
    EXPECT_TRUE(Sees(File("top/sub/key")));
}

TEST_F(WatchTree, NoticesThatAnAncestorOfTheRootWasMovedAway) {
    Make("a/b/top");
    Watch(m_folder / "a/b/top");
    Rename("a", "z");
    Settle();
    EXPECT_EQ(Marked(), 0U);
    Rename("z", "a");
    Settle();
    EXPECT_TRUE(Sees(File("a/b/top/key")));
}

TEST_F(WatchTree, ResolvesASymbolicLinkOnceAndSaysSo) {
    Make("real");
    Make("other");
    std::filesystem::create_directory_symlink(m_folder / "real", m_folder / "link");
    Watch(m_folder / "link");
    EXPECT_EQ(m_log.Count(kInformation, "Directory(" + m_folder / "link" +
                                            ") is watched for task(subscriber) as " +
                                            m_folder / "real" + ", to which it leads now."),
              1U);
    EXPECT_TRUE(Sees(File("real/key")));
    std::filesystem::remove(m_folder / "link");
    std::filesystem::create_directory_symlink(m_folder / "other", m_folder / "link");
    Settle();
    EXPECT_TRUE(Sees(File("real/key")));
    EXPECT_FALSE(Sees(File("other/key")));
}

TEST_F(WatchTree, DoesNotFollowSymbolicLinksBelow) {
    Make("top");
    Make("outside");
    std::filesystem::create_directory_symlink(m_folder / "outside", m_folder / "top/link");
    Watch(m_folder / "top");
    EXPECT_EQ(Marked(), 1U);
    EXPECT_FALSE(Sees(File("outside/key")));
}

TEST_F(WatchTree, RefusesAPathThatIsNotAbsolute) {
    for (const char* path : {"", "etc", "./etc"}) {
        Watch(path);
        EXPECT_EQ(m_log.Count(kError, std::string("Directory(") + path +
                                          ") is not watched: an absolute path is expected."),
                  1U);
    }
    EXPECT_EQ(m_notifier.Tree().RootCount(), 0U);
}

TEST_F(WatchTree, WaitsWhereAFileStandsInTheDirectorysPlace) {
    File("top");
    Watch(m_folder / "top");
    EXPECT_TRUE(m_log.Contains("yet: Not a directory."));
    std::filesystem::remove(m_folder / "top");
    Make("top");
    Settle();
    EXPECT_TRUE(Sees(File("top/key")));
}

TEST_F(WatchTree, SaysThatAPathIsTooLong) {
    Watch("/" + std::string(300, 'x'));
    EXPECT_TRUE(m_log.Contains("yet: File name too long."));
    Watch("/" + std::string(5000, 'y'));
    EXPECT_EQ(m_notifier.Tree().RootCount(), 2U);
    EXPECT_EQ(Marked(), 0U);
}

TEST_F(WatchTree, TakesNamesWithLineEndsAsTheyAre) {
    Make("top/a\nb");
    Watch(m_folder / "top");
    EXPECT_TRUE(Sees(File("top/a\nb/k\ney")));
}

TEST_F(WatchTree, GoesOnBelowADirectoryWhosePathIsTooLong) {
    Make("top");
    // Names one level after the other, as a single path of this length would be refused.
    const int before = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::chdir((m_folder / "top").c_str()), 0);
    const std::string name(250, 'd');
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(::mkdir(name.c_str(), 0700), 0);
        ASSERT_EQ(::chdir(name.c_str()), 0);
    }
    ASSERT_EQ(::fchdir(before), 0);
    ::close(before);
    Watch(m_folder / "top");
    EXPECT_GT(Marked(), 10U);
    EXPECT_TRUE(m_log.Contains("cannot be read: File name too long. It is not watched."));
    EXPECT_TRUE(Sees(File("top/key")));
}

TEST_F(WatchTree, AsksTheKernelOnceForADirectoryThatIsAskedForTwice) {
    Make("top");
    Watch(m_folder / "top");
    Watch(m_folder / "top/");
    EXPECT_EQ(m_notifier.Tree().RootCount(), 1U);
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_DEBUG,
                          "Directory(" + m_folder / "top" + ") is watched already."),
              1U);
}

TEST_F(WatchTree, KeepsTheMarksThatAnotherRootNeeds) {
    Make("top/sub/deep");
    Watch(m_folder / "top");
    Watch(m_folder / "top/sub");
    EXPECT_EQ(Marked(), 3U);
    Unwatch(m_folder / "top");
    EXPECT_EQ(Marked(), 2U);
    EXPECT_TRUE(Sees(File("top/sub/deep/key")));
    EXPECT_FALSE(Sees(File("top/key")));
}

TEST_F(WatchTree, KnowsWhatWasNotAskedFor) {
    EXPECT_FALSE(m_notifier.Unwatch(m_folder.Path(), m_inbox));
}

TEST_F(WatchTree, GivesEverythingBack) {
    Make("top/a/b");
    Watch(m_folder / "top");
    Watch(m_folder / "missing/one");
    EXPECT_GE(m_notifier.Tree().WatchCount(), 3U);
    Unwatch(m_folder / "top");
    Unwatch(m_folder / "missing/one");
    EXPECT_EQ(Marked(), 0U);
    EXPECT_EQ(m_notifier.Tree().WatchCount(), 0U);
    EXPECT_EQ(m_notifier.Tree().StrayMarks(), 0U);
}

TEST_F(WatchTree, NeedsNoSecondWatchOfWhatItsMarksTell) {
    Make("top/a/b");
    Watch(m_folder / "top");
    const std::size_t ancestors = m_notifier.Tree().WatchCount();
    Make("top/c/d");
    Settle();
    EXPECT_EQ(Marked(), 5U);
    EXPECT_EQ(m_notifier.Tree().WatchCount(), ancestors);
}

TEST_F(WatchTree, FollowsDirectoriesByTheFeedWhereMarksCannotTell) {
    Make("top/stays");
    Make("top/goes");
    FileNotify::FileMarks marks(false);
    FileNotify::ChangeFeed changes;
    ASSERT_TRUE(marks.Open());
    ASSERT_EQ(changes.Open(), 0);
    FileNotify::WatchTree tree(marks, changes);
    tree.Add(m_folder / "top", true,
             std::make_shared<Framework::Outbox>(m_inbox, 10, "file events"));
    const auto settle = [&] {
        tree.TakeChanges();
        while (tree.Scan(100)) {
        }
    };
    settle();
    ASSERT_EQ(tree.MarkedCount(), 3U);
    Make("top/new");
    Rename("top/stays", "top/moved");
    Delete("top/goes");
    settle();
    EXPECT_EQ(tree.MarkedCount(), 3U);
    EXPECT_NE(tree.FindByPath(m_folder / "top/new"), nullptr);
    EXPECT_NE(tree.FindByPath(m_folder / "top/moved"), nullptr);
    EXPECT_EQ(tree.FindByPath(m_folder / "top/stays"), nullptr);
    EXPECT_EQ(tree.FindByPath(m_folder / "top/goes"), nullptr);
}

TEST_F(WatchTree, LeaksNothingInTenThousandRounds) {
    Make("top/a/b");
    const int before = OpenDescriptors();
    for (int i = 0; i < 10000; ++i) {
        m_notifier.Watch(m_folder / "top", true, m_inbox);
        if (i % 100 == 0) {
            Settle();
            ASSERT_EQ(Marked(), 3U);
        }
        Unwatch(m_folder / "top");
    }
    Settle();
    EXPECT_EQ(Marked(), 0U);
    EXPECT_EQ(m_notifier.Tree().WatchCount(), 0U);
    EXPECT_EQ(m_notifier.Tree().StrayMarks(), 0U);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(WatchTree, IsRightAgainAfterACheckWhateverWasMissed) {
    Make("top/gone");
    Make("top/stays");
    Make("outside/moved");
    Watch(m_folder / "top");
    FileNotify::FileMarks marks;
    FileNotify::ChangeFeed changes;
    ASSERT_TRUE(marks.Open());
    ASSERT_EQ(changes.Open(), 0);
    FileNotify::WatchTree tree(marks, changes);
    tree.Add(m_folder / "top", true,
             std::make_shared<Framework::Outbox>(m_inbox, 10, "file events"));
    while (tree.Scan(100)) {
    }
    ASSERT_EQ(tree.MarkedCount(), 3U);
    Delete("top/gone");
    Rename("outside", "top/inside");
    tree.Check();
    while (tree.Scan(100)) {
    }
    EXPECT_EQ(tree.MarkedCount(), 4U);
    EXPECT_NE(tree.FindByPath(m_folder / "top/inside/moved"), nullptr);
    EXPECT_EQ(tree.FindByPath(m_folder / "top/gone"), nullptr);
}

TEST_F(WatchTree, SaysWhichFileSystemCannotBeMarkedAndGoesOn) {
    Make("top/sub");
    FileNotify::FileMarks refusing;  // not opened: every mark is refused
    FileNotify::ChangeFeed changes;
    ASSERT_EQ(changes.Open(), 0);
    FileNotify::WatchTree tree(refusing, changes);
    tree.Add(m_folder / "top", true,
             std::make_shared<Framework::Outbox>(m_inbox, 10, "file events"));
    while (tree.Scan(100)) {
    }
    EXPECT_EQ(tree.MarkedCount(), 0U);
    EXPECT_TRUE(m_log.Contains("Directory(" + m_folder / "top" +
                               ") cannot be watched, on a file system of type 0x"));
    EXPECT_EQ(tree.RootCount(), 1U);
}

TEST_F(WatchTree, MarksInStepsAndSaysWhenItIsDone) {
    for (int i = 0; i < 600; ++i) {
        Make("top/" + std::to_string(i));
    }
    m_notifier.Watch(m_folder / "top", true, m_inbox);
    EXPECT_EQ(m_notifier.Pass(), 0);
    EXPECT_LT(Marked(), 600U);
    Settle();
    EXPECT_EQ(Marked(), 601U);
    EXPECT_EQ(m_log.Count(kInformation, "601 directories are watched."), 1U);
}

TEST_F(WatchTree, LeavesTheKernelsOwnFileSystemsOut) {
    Make("top/proc");
    if (::mount("proc", (m_folder / "top/proc").c_str(), "proc", 0, nullptr) != 0) {
        GTEST_SKIP() << "no mounts here";
    }
    Watch(m_folder / "top");
    EXPECT_EQ(Marked(), 1U);
    EXPECT_EQ(m_log.Count(kInformation, "Directory(" + m_folder / "top/proc" +
                                            ") shows the kernel's state, it is left out."),
              1U);
    ::umount2((m_folder / "top/proc").c_str(), MNT_DETACH);
}

TEST_F(WatchTree, SeesAnAccessThroughABindMountUnderTheDirectorysOwnPath) {
    Make("top");
    Make("elsewhere");
    const std::string file = File("top/key");
    if (::mount((m_folder / "top").c_str(), (m_folder / "elsewhere").c_str(), nullptr, MS_BIND,
                nullptr) != 0) {
        GTEST_SKIP() << "no mounts here";
    }
    Watch(m_folder / "top");
    m_events.clear();
    InChild([&] { ReadFile(m_folder / "elsewhere/key"); });
    EXPECT_EQ(MasksOf(file).size(), 3U);
    ::umount2((m_folder / "elsewhere").c_str(), MNT_DETACH);
}

TEST_F(WatchTree, DoesNotRunInCirclesThroughABindMountOfItself) {
    Make("top/loop");
    if (::mount((m_folder / "top").c_str(), (m_folder / "top/loop").c_str(), nullptr,
                MS_BIND | MS_REC, nullptr) != 0) {
        GTEST_SKIP() << "no mounts here";
    }
    Watch(m_folder / "top");
    EXPECT_TRUE(m_log.Contains(", which is watched already."));
    EXPECT_TRUE(Sees(File("top/key")));
    ::umount2((m_folder / "top/loop").c_str(), MNT_DETACH);
}

TEST_F(WatchTree, WatchesAFileSystemOfItsOwnBelow) {
    Make("top/memory");
    if (::mount("none", (m_folder / "top/memory").c_str(), "tmpfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "no mounts here";
    }
    Watch(m_folder / "top");
    EXPECT_EQ(Marked(), 2U);
    EXPECT_TRUE(Sees(File("top/memory/key")));
    ::umount2((m_folder / "top/memory").c_str(), MNT_DETACH);
}

TEST_F(WatchTree, FollowsWhatIsMountedOverAWatchedDirectoryAndUnmountedAgain) {
    Make("top/memory");
    const std::string file = File("top/memory/key");
    Watch(m_folder / "top");
    if (::mount("none", (m_folder / "top/memory").c_str(), "tmpfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "no mounts here";
    }
    Settle();
    EXPECT_EQ(Marked(), 2U);
    EXPECT_TRUE(Sees(File("top/memory/covering")));
    ASSERT_EQ(::umount((m_folder / "top/memory").c_str()), 0);
    EXPECT_TRUE(TestSupport::WaitUntil([&] {
        Settle();
        return Sees(file);
    }));
    EXPECT_EQ(Marked(), 2U);
}

}  // namespace
