#include "sdk/FileUtils.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using SDK::FileUtils;

class FileUtilsTest : public testing::Test {
protected:
    std::string Write(const std::string& content) const { return m_folder.Write("file", content); }

    TestSupport::TemporaryFolder m_folder;
    bool m_truncated = true;
    std::string m_content = "before";
};

TEST_F(FileUtilsTest, ReadsAWholeFile) {
    EXPECT_EQ(FileUtils::ReadFile(Write("hello"), m_truncated, m_content, 100), 0);
    EXPECT_EQ(m_content, "hello");
    EXPECT_FALSE(m_truncated);
}

TEST_F(FileUtilsTest, SaysWhetherThereWasMore) {
    EXPECT_EQ(FileUtils::ReadFile(Write("hello"), m_truncated, m_content, 5), 0);
    EXPECT_FALSE(m_truncated);
    EXPECT_EQ(FileUtils::ReadFile(Write("hello"), m_truncated, m_content, 4), 0);
    EXPECT_EQ(m_content, "hell");
    EXPECT_TRUE(m_truncated);
}

TEST_F(FileUtilsTest, ReadsNothingOfAFileWhenNothingIsWanted) {
    EXPECT_EQ(FileUtils::ReadFile(Write("hello"), m_truncated, m_content, 0), 0);
    EXPECT_EQ(m_content, "");
    EXPECT_TRUE(m_truncated);
    EXPECT_EQ(FileUtils::ReadFile("/dev/null", m_truncated, m_content, 0), 0);
    EXPECT_FALSE(m_truncated);
}

TEST_F(FileUtilsTest, ReadsEverythingWithoutALimit) {
    EXPECT_EQ(FileUtils::ReadFile(Write("hello"), m_truncated, m_content, std::string::npos), 0);
    EXPECT_EQ(m_content, "hello");
    EXPECT_FALSE(m_truncated);
}

TEST_F(FileUtilsTest, ReadsLongFilesInPieces) {
    const std::string text(1000000, 'x');
    EXPECT_EQ(FileUtils::ReadFile(Write(text), m_truncated, m_content, 2000000), 0);
    EXPECT_EQ(m_content, text);
}

TEST_F(FileUtilsTest, ReadsProcFilesWhoseSizeIsZero) {
    EXPECT_EQ(FileUtils::ReadFile("/proc/self/status", m_truncated, m_content, 100000), 0);
    EXPECT_EQ(m_content.rfind("Name:", 0), 0U);
}

TEST_F(FileUtilsTest, CutsProcFilesToo) {
    EXPECT_EQ(FileUtils::ReadFile("/proc/self/status", m_truncated, m_content, 5), 0);
    EXPECT_EQ(m_content, "Name:");
    EXPECT_TRUE(m_truncated);
}

TEST_F(FileUtilsTest, LeavesTheContentAloneWhenItFails) {
    EXPECT_EQ(FileUtils::ReadFile(m_folder.Path() + "/none", m_truncated, m_content, 100), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(FileUtils::ReadFile(m_folder.Path(), m_truncated, m_content, 100), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(m_content, "before");
}

TEST_F(FileUtilsTest, KnowsRegularFilesThroughLinksToo) {
    const std::string path = Write("x");
    const std::string link = m_folder.Path() + "/link";
    ASSERT_EQ(::symlink(path.c_str(), link.c_str()), 0);
    EXPECT_TRUE(FileUtils::IsFile(path));
    EXPECT_TRUE(FileUtils::IsFile(link));
    EXPECT_FALSE(FileUtils::IsFile(m_folder.Path()));
    EXPECT_FALSE(FileUtils::IsFile("/dev/null"));
    ::unlink(path.c_str());
    EXPECT_FALSE(FileUtils::IsFile(link));
}

}  // namespace
