#include "FanotifyGroup.h"

#include "NotifierHarness.h"

#include <sys/fanotify.h>

#include <map>

namespace {

using namespace FileNotifyTest;
using FileNotify::FanotifyEvent;
using Naming = FileNotify::FanotifyGroup::Naming;

class FanotifyGroup : public NotifierTest {
protected:
    /// The directories and names of the events of a reading.
    static Strings EventsOf(FileNotify::FanotifyGroup& group, const std::string& file) {
        InChild([&] { ReadFile(file); });
        Strings events;
        group.Read([&](const FanotifyEvent& event) {
            if ((event.m_mask & FAN_ONDIR) != 0) {
                return;  // of the test's own looks into the folder
            }
            events.push_back((event.m_hasKey ? "key" : std::string(event.m_directory)) + '/' +
                             std::string(event.m_name));
        });
        return events;
    }
};

TEST_F(FanotifyGroup, NamesAFileByTheKeyOfItsDirectory) {
    const std::string file = File("shadow");
    FileNotify::FanotifyGroup group(Naming::BY_DIRECTORY);
    ASSERT_EQ(group.Open(), 0);
    ASSERT_EQ(group.Mark(Open(m_folder.Path()).Get()), 0);
    EXPECT_EQ(EventsOf(group, file), Strings{"key/shadow"});
}

TEST_F(FanotifyGroup, TellsWhatBefallsDirectoriesWhereItNamesThemByKey) {
    Make("top/old");
    FileNotify::FanotifyGroup group(Naming::BY_DIRECTORY);
    ASSERT_EQ(group.Open(), 0);
    ASSERT_EQ(group.Mark(Open(m_folder / "top").Get()), 0);
    Make("top/new");
    std::filesystem::rename(m_folder / "top/old", m_folder / "gone");
    std::filesystem::rename(m_folder / "gone", m_folder / "top/back");
    std::filesystem::remove_all(m_folder / "top");
    std::map<std::string, std::uint64_t> told;
    group.Read([&](const FanotifyEvent& event) {
        EXPECT_NE(event.m_mask & FAN_ONDIR, 0U);
        told[std::string(event.m_name)] |= event.m_mask;
    });
    EXPECT_NE(told["new"] & FAN_CREATE, 0U);
    EXPECT_NE(told["old"] & FAN_MOVED_FROM, 0U);
    EXPECT_NE(told["back"] & FAN_MOVED_TO, 0U);
    EXPECT_NE(told["."] & FAN_DELETE_SELF, 0U);
}

TEST_F(FanotifyGroup, NamesAFileByItsPathWhereItComesAsADescriptor) {
    const std::string file = File("shadow");
    FileNotify::FanotifyGroup group(Naming::BY_DESCRIPTOR);
    ASSERT_EQ(group.Open(), 0);
    ASSERT_EQ(group.Mark(Open(m_folder.Path()).Get()), 0);
    EXPECT_EQ(EventsOf(group, file), Strings{file});
}

TEST_F(FanotifyGroup, ClosesTheDescriptorsOfItsEvents) {
    const std::string file = File("shadow");
    FileNotify::FanotifyGroup group(Naming::BY_DESCRIPTOR);
    ASSERT_EQ(group.Open(), 0);
    ASSERT_EQ(group.Mark(Open(m_folder.Path()).Get()), 0);
    const int before = OpenDescriptors();
    for (int i = 0; i < 10; ++i) {
        EventsOf(group, file);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(FanotifyGroup, IsSilentAboutWhatIsNoLongerMarked) {
    const std::string file = File("shadow");
    FileNotify::FanotifyGroup group(Naming::BY_DIRECTORY);
    ASSERT_EQ(group.Open(), 0);
    const SDK::UniqueDescriptor directory = Open(m_folder.Path());
    ASSERT_EQ(group.Mark(directory.Get()), 0);
    ASSERT_EQ(group.Unmark(directory.Get()), 0);
    EXPECT_TRUE(EventsOf(group, file).empty());
    EXPECT_EQ(group.Unmark(directory.Get()), ENOENT);
}

TEST_F(FanotifyGroup, MarksTwiceAsOnce) {
    const std::string file = File("shadow");
    FileNotify::FanotifyGroup group(Naming::BY_DIRECTORY);
    ASSERT_EQ(group.Open(), 0);
    const SDK::UniqueDescriptor directory = Open(m_folder.Path());
    ASSERT_EQ(group.Mark(directory.Get()), 0);
    ASSERT_EQ(group.Mark(directory.Get()), 0);
    EXPECT_EQ(EventsOf(group, file).size(), 1U);
    ASSERT_EQ(group.Unmark(directory.Get()), 0);
    EXPECT_TRUE(EventsOf(group, file).empty());
}

TEST_F(FanotifyGroup, MarksNothingButDirectories) {
    FileNotify::FanotifyGroup group(Naming::BY_DIRECTORY);
    ASSERT_EQ(group.Open(), 0);
    const SDK::UniqueDescriptor file(::open(File("shadow").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(group.Mark(file.Get()), ENOTDIR);
}

TEST_F(FanotifyGroup, HasNothingToTellWhenItIsClosed) {
    FileNotify::FanotifyGroup group(Naming::BY_DIRECTORY);
    EXPECT_FALSE(group.IsOpen());
    EXPECT_EQ(group.Descriptor(), -1);
    EXPECT_EQ(group.Read([](const FanotifyEvent&) {}), 0U);
}

}  // namespace
