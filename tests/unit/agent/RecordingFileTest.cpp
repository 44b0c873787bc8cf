#include "RecordingFile.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace {

class RecordingFile : public testing::Test {
protected:
    std::unique_ptr<Agent::RecordingFile> Open(std::uint64_t limit = 1000) {
        m_wrong.clear();
        return Agent::RecordingFile::Open(m_path, limit, m_wrong);
    }

    mode_t Mode() const {
        struct stat status {};
        EXPECT_EQ(::stat(m_path.c_str(), &status), 0);
        return status.st_mode & 07777U;
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "recording";
    std::string m_wrong;
};

TEST_F(RecordingFile, IsItsOwnersAlone) {
    const mode_t old = ::umask(0);
    EXPECT_NE(Open(), nullptr);
    ::umask(old);
    EXPECT_EQ(Mode(), 0600U);
}

TEST_F(RecordingFile, HoldsWhatIsWritten) {
    const auto file = Open();
    EXPECT_EQ(file->Write("one\n"), "");
    EXPECT_EQ(file->Write("two\n"), "");
    EXPECT_EQ(TestSupport::ReadText(m_path), "one\ntwo\n");
}

TEST_F(RecordingFile, OverwritesNothing) {
    m_folder.Write("recording", "old");
    ::chmod(m_path.c_str(), 0600);
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(m_wrong, m_path + ": is not empty, and a recording overwrites nothing");
    EXPECT_EQ(TestSupport::ReadText(m_path), "old");
}

TEST_F(RecordingFile, MayBeAnEmptyFileThatNobodyElseCouldOpen) {
    m_folder.Write("recording", "");
    ::chmod(m_path.c_str(), 0640);
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(m_wrong, m_path + ": may be read or written by others, expected mode 0600");
    ::chmod(m_path.c_str(), 0600);
    EXPECT_NE(Open(), nullptr);
}

TEST_F(RecordingFile, IsNoLinkAndNoPipe) {
    ASSERT_EQ(::symlink((m_folder / "elsewhere").c_str(), m_path.c_str()), 0);
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(m_wrong, m_path + ": Too many levels of symbolic links");
    ::unlink(m_path.c_str());
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(m_wrong, m_path + ": No such device or address");
}

TEST_F(RecordingFile, TellsWhyItCannotBeMade) {
    std::string wrong;
    EXPECT_EQ(Agent::RecordingFile::Open(m_folder / "missing/file", 1, wrong), nullptr);
    EXPECT_EQ(wrong, m_folder / "missing/file" + ": No such file or directory");
}

TEST_F(RecordingFile, KnowsHowMuchRoomThereIs) {
    const auto file = Open(10);
    EXPECT_TRUE(file->HasRoom(10));
    EXPECT_FALSE(file->HasRoom(11));
    file->Write("1234567\n");
    EXPECT_TRUE(file->HasRoom(2));
    EXPECT_FALSE(file->HasRoom(3));
}

TEST_F(RecordingFile, TakesBackWhatCannotBeWrittenWhole) {
    const auto file = Open();
    file->Write("whole\n");
    // As on a full disk: a part is taken, then there is an error.
    const auto old = ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit eight{8, limit.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &eight);
    const std::string wrong = file->Write("torn line\n");
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ::signal(SIGXFSZ, old);
    EXPECT_EQ(wrong, "File too large");
    EXPECT_EQ(TestSupport::ReadText(m_path), "whole\n");
    EXPECT_EQ(file->Write("next\n"), "");
    EXPECT_EQ(TestSupport::ReadText(m_path), "whole\nnext\n");
}

}  // namespace
