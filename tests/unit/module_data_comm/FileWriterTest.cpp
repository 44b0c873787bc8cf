#include "outputs/FileWriter.h"

#include "FileSizeLimit.h"
#include "PutLine.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Engine::FileWriter;
using TestSupport::ReadText;

class FileWriterTest : public testing::Test {
protected:
    /// A writer that rotates its file after some bytes.
    std::unique_ptr<FileWriter> Open(std::uint64_t limit = 0, int keep = 8) const {
        FileWriter::Options options;
        options.m_limit = limit;
        options.m_keep = keep;
        auto writer = FileWriter::Open(m_path, options);
        EXPECT_NE(writer, nullptr);
        return writer;
    }
    std::string Rotated(int number) const { return m_path + '.' + std::to_string(number); }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "alarms";
};

TEST_F(FileWriterTest, AppendsToWhatIsThere) {
    m_folder.Write("alarms", "old\n");
    const auto writer = Open();
    EXPECT_EQ(PutLine(*writer, "one"), "");
    EXPECT_EQ(PutLine(*writer, "two"), "");
    EXPECT_EQ(ReadText(m_path), "old\none\ntwo\n");
}

TEST_F(FileWriterTest, MakesAFileThatIsNotForEveryonesEyes) {
    const auto writer = Open();
    struct stat status {};
    ASSERT_EQ(::stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U & ~0640U, 0U);
}

TEST_F(FileWriterTest, LogsWhyAFileCannotBeOpened) {
    EXPECT_EQ(FileWriter::Open(m_folder / "missing/alarms", {}), nullptr);
    EXPECT_TRUE(m_log.Contains("missing/alarms) cannot be opened: No such file or directory"));
}

TEST_F(FileWriterTest, RefusesANamedPipeWithoutReaderAtOnce) {
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    EXPECT_EQ(FileWriter::Open(m_path, {}), nullptr);
    EXPECT_TRUE(m_log.Contains("cannot be opened: No such device or address"));
}

TEST_F(FileWriterTest, NeverRotatesAPipe) {
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    const SDK::UniqueDescriptor reader(::open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const auto writer = Open(1);
    EXPECT_EQ(PutLine(*writer, "one"), "");
    EXPECT_EQ(PutLine(*writer, "two"), "");
    std::string text(20, ' ');
    text.resize(static_cast<std::size_t>(::read(reader.Get(), text.data(), text.size())));
    EXPECT_EQ(text, "one\ntwo\n");
    EXPECT_FALSE(fs::exists(Rotated(1)));
    EXPECT_TRUE(m_log.Texts(Poco::Message::PRIO_ERROR).empty());
}

TEST_F(FileWriterTest, KeepsTheLineForANamedPipeThatNobodyReads) {
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    const SDK::UniqueDescriptor reader(::open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const auto writer = Open();
    const std::string line(100000, 'x');
    EXPECT_EQ(PutLine(*writer, line), "nobody reads");
    EXPECT_TRUE(writer->ShouldRetry());
    std::string text(2 * line.size(), ' ');
    const ssize_t first = ::read(reader.Get(), text.data(), text.size());
    EXPECT_EQ(PutLine(*writer, line), "");
    EXPECT_FALSE(writer->ShouldRetry());
    const ssize_t second = ::read(reader.Get(), text.data() + first, line.size());
    text.resize(static_cast<std::size_t>(first + second));
    EXPECT_EQ(text, line + '\n');
}

TEST_F(FileWriterTest, TakesBackALineThatWasNotWrittenWhole) {
    const auto writer = Open();
    ASSERT_EQ(PutLine(*writer, "whole"), "");
    {
        const FileSizeLimit limit(10);
        EXPECT_EQ(PutLine(*writer, "longer than the room that is left"), "File too large");
    }
    EXPECT_EQ(ReadText(m_path), "whole\n");
    EXPECT_EQ(PutLine(*writer, "next"), "");
    EXPECT_EQ(ReadText(m_path), "whole\nnext\n");
}

TEST_F(FileWriterTest, EndsTheTornLineThatACrashLeft) {
    m_folder.Write("alarms", "whole\nto");
    const auto writer = Open();
    EXPECT_EQ(PutLine(*writer, "next"), "");
    EXPECT_EQ(PutLine(*writer, "and next"), "");
    EXPECT_EQ(ReadText(m_path), "whole\nto\nnext\nand next\n");
}

TEST_F(FileWriterTest, OfADeviceWithoutSpaceFailsWithTheReason) {
    const auto writer = FileWriter::Open("/dev/full", {});
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(PutLine(*writer, "line"), "No space left on device");
    EXPECT_FALSE(writer->ShouldRetry());
}

TEST_F(FileWriterTest, MakesAFileAnewThatWasRotatedAway) {
    const auto writer = Open();
    ASSERT_EQ(PutLine(*writer, "before"), "");
    ASSERT_EQ(std::rename(m_path.c_str(), Rotated(1).c_str()), 0);
    EXPECT_EQ(PutLine(*writer, "after"), "");
    EXPECT_EQ(ReadText(Rotated(1)), "before\n");
    EXPECT_EQ(ReadText(m_path), "after\n");
    EXPECT_TRUE(m_log.Contains("was moved away, it is made anew"));
}

TEST_F(FileWriterTest, LetsGoOfAFileThatWasMovedWhenItGetsReadyAnew) {
    const auto writer = Open();
    ASSERT_EQ(std::rename(m_path.c_str(), Rotated(1).c_str()), 0);
    std::string why;
    EXPECT_TRUE(writer->Prepare(why));
    EXPECT_TRUE(fs::exists(m_path)) << "and has it made anew already";
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        EXPECT_NE(fs::read_symlink(entry.path(), error).string(), Rotated(1));
    }
}

TEST_F(FileWriterTest, GoesOnInTheMovedFileWhenNoNewOneCanBeMadeAndSaysSoOnce) {
    const TestSupport::TemporaryFolder other;
    const auto writer = FileWriter::Open(other / "alarms", {});
    ASSERT_NE(writer, nullptr);
    ASSERT_EQ(std::rename(other.Path().c_str(), (m_folder / "moved").c_str()), 0);
    EXPECT_EQ(PutLine(*writer, "one"), "");
    EXPECT_EQ(PutLine(*writer, "two"), "");
    EXPECT_EQ(ReadText(m_folder / "moved/alarms"), "one\ntwo\n");
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_ERROR,
                          "Output file(" + other / "alarms" +
                              ") was moved away and cannot be made anew: No such file or "
                              "directory. Its lines go on into the one that was moved."),
              1U);
}

TEST_F(FileWriterTest, DoesNotFollowALinkThatTookThePlaceOfItsFile) {
    const auto writer = Open();
    ASSERT_EQ(PutLine(*writer, "before"), "");
    const std::string refused = "a symbolic link has taken its place, which is not followed";
    for (const char* target : {"missing", "there"}) {
        m_folder.Write("there", "");
        fs::remove(m_path);
        fs::create_symlink(m_folder / target, m_path);
        EXPECT_EQ(PutLine(*writer, "line"), refused);
        EXPECT_TRUE(writer->ShouldRetry()) << "it may go away again";
        std::string why;
        EXPECT_FALSE(writer->Prepare(why));
        EXPECT_EQ(why, refused);
    }
    EXPECT_FALSE(fs::exists(m_folder / "missing"));
    EXPECT_EQ(ReadText(m_folder / "there"), "");
    fs::remove(m_path);
    EXPECT_EQ(PutLine(*writer, "line"), "");
    EXPECT_FALSE(writer->ShouldRetry());
    EXPECT_EQ(ReadText(m_path), "line\n");
}

TEST_F(FileWriterTest, FollowsALinkThatStoodAtItsPathFromTheBeginning) {
    fs::create_symlink(m_folder / "target", m_path);
    const auto writer = Open();
    EXPECT_EQ(PutLine(*writer, "one"), "");
    fs::rename(m_folder / "target", m_folder / "moved");
    EXPECT_EQ(PutLine(*writer, "two"), "");
    EXPECT_EQ(ReadText(m_folder / "moved"), "one\n");
    EXPECT_EQ(ReadText(m_folder / "target"), "two\n");
    fs::remove(m_path);
    fs::create_symlink(m_folder / "other", m_path);
    EXPECT_EQ(PutLine(*writer, "three"), "");
    EXPECT_EQ(ReadText(m_folder / "other"), "three\n");
}

TEST_F(FileWriterTest, KeepsEachFileBelowItsLimitWithWholeLinesOnly) {
    const auto writer = Open(100, 99);
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        const std::string line(static_cast<std::size_t>(1 + i * 7 % 40), 'x');
        ASSERT_EQ(PutLine(*writer, line), "");
        expected += line + '\n';
    }
    std::string all;
    for (int number = 99; number >= 0; --number) {
        const std::string text = ReadText(number == 0 ? m_path : Rotated(number));
        EXPECT_LE(text.size(), 100U);
        EXPECT_TRUE(text.empty() || text.back() == '\n');
        all += text;
    }
    EXPECT_EQ(all, expected);
    EXPECT_TRUE(fs::exists(Rotated(40)));
}

TEST_F(FileWriterTest, GivesALineThatIsLargerThanTheLimitAFileOfItsOwn) {
    const auto writer = Open(10);
    const std::string large(50, 'x');
    for (const std::string& line : {std::string("one"), large, std::string("two")}) {
        EXPECT_EQ(PutLine(*writer, line), "");
    }
    EXPECT_EQ(ReadText(Rotated(2)), "one\n");
    EXPECT_EQ(ReadText(Rotated(1)), large + '\n');
    EXPECT_EQ(ReadText(m_path), "two\n");
}

TEST_F(FileWriterTest, RotatesWhatAnAgentBeforeItWrote) {
    m_folder.Write("alarms", "12345678\n12345");
    const auto writer = Open(10);
    EXPECT_EQ(PutLine(*writer, "line"), "");
    EXPECT_EQ(ReadText(Rotated(1)), "12345678\n12345\n") << "a rotated file ends with a line's end";
    EXPECT_EQ(ReadText(m_path), "line\n");
}

TEST_F(FileWriterTest, GoesOnAppendingWhenItCannotRotateAndSaysSoOnce) {
    ASSERT_EQ(::mkdir(Rotated(1).c_str(), 0700), 0);
    const auto writer = Open(10);
    for (const char* line : {"12345678", "one", "two"}) {
        EXPECT_EQ(PutLine(*writer, line), "");
    }
    EXPECT_EQ(ReadText(m_path), "12345678\none\ntwo\n");
    EXPECT_EQ(m_log.Texts(Poco::Message::PRIO_ERROR),
              std::vector<std::string>{"Output file(" + m_path +
                                       ") cannot be rotated and grows beyond its limit: renaming "
                                       "it to(" +
                                       Rotated(1) + "): Is a directory"});
    ASSERT_EQ(::rmdir(Rotated(1).c_str()), 0);
    EXPECT_EQ(PutLine(*writer, "three"), "");
    EXPECT_EQ(ReadText(m_path), "three\n") << "it tries again with each line";
}

TEST_F(FileWriterTest, LosesNoLineWhileSomebodyElseMovesItsFilesToo) {
    ASSERT_EQ(::mkdir((m_folder / "moved").c_str(), 0700), 0);
    std::atomic<bool> done = false;
    std::thread mover([&] {
        for (int i = 0; !done; ++i) {
            std::rename(m_path.c_str(), (m_folder / "moved/" + std::to_string(i)).c_str());
        }
    });
    constexpr std::size_t kLines = 5000;
    const auto writer = Open(200, 999);
    for (std::size_t i = 0; i < kLines; ++i) {
        EXPECT_EQ(PutLine(*writer, std::to_string(i)), "");
    }
    done = true;
    mover.join();
    std::vector<int> seen(kLines);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(m_folder.Path())) {
        std::istringstream lines(ReadText(entry.path().string()));
        for (std::string line; std::getline(lines, line);) {
            ++seen.at(std::stoul(line));
        }
    }
    EXPECT_EQ(seen, std::vector<int>(kLines, 1));
}

}  // namespace
