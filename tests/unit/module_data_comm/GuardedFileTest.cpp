#include "outputs/GuardedFile.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using Others = Engine::GuardedFile::Others;

class GuardedFile : public testing::Test {
protected:
    std::string WhyNot(mode_t mode, gid_t group, Others others = Others::MAY_READ) {
        EXPECT_EQ(::chown(m_path.c_str(), ::geteuid(), group), 0) << "needs root";
        EXPECT_EQ(::chmod(m_path.c_str(), mode), 0);
        return Engine::GuardedFile::WhyNot(m_path, others);
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder.Write("file", "text");
};

TEST_F(GuardedFile, MayNotBeWrittenByOthers) {
    EXPECT_EQ(WhyNot(0644, 65534), "");
    EXPECT_EQ(WhyNot(0664, 65534),
              m_path + " may be written by others (mode 0664), expected 0644 at the most");
    EXPECT_EQ(WhyNot(0646, 0),
              m_path + " may be written by others (mode 0646), expected 0644 at the most");
    EXPECT_EQ(WhyNot(0664, 0), "") << "root's own group are no others";
}

TEST_F(GuardedFile, WithSecretsMayNotBeReadByOthers) {
    EXPECT_EQ(WhyNot(0600, 65534, Others::MAY_NOT_READ), "");
    EXPECT_EQ(WhyNot(0640, 65534, Others::MAY_NOT_READ),
              m_path + " may be read by others (mode 0640), expected 0600 at the most");
    EXPECT_EQ(WhyNot(0604, 0, Others::MAY_NOT_READ),
              m_path + " may be read by others (mode 0604), expected 0600 at the most");
    EXPECT_EQ(WhyNot(0640, 0, Others::MAY_NOT_READ), "") << "root's own group are no others";
}

TEST_F(GuardedFile, MustBelongToRootOrToTheUserOfTheAgent) {
    ASSERT_EQ(::chown(m_path.c_str(), 65534, 0), 0) << "needs root";
    EXPECT_EQ(Engine::GuardedFile::WhyNot(m_path, Others::MAY_READ),
              m_path + " belongs to user 65534, expected root or the user who runs the agent");
}

TEST_F(GuardedFile, MustBeThereAndBeAFile) {
    EXPECT_EQ(Engine::GuardedFile::WhyNot(m_folder / "none", Others::MAY_READ),
              m_folder / "none" + " cannot be examined: No such file or directory");
    EXPECT_EQ(Engine::GuardedFile::WhyNot(m_folder.Path(), Others::MAY_READ),
              m_folder.Path() + " is no regular file");
}

TEST_F(GuardedFile, IsWhatALinkLeadsTo) {
    ASSERT_EQ(WhyNot(0666, 0), m_path +
                                   " may be written by others (mode 0666), expected 0644 at "
                                   "the most");
    ASSERT_EQ(::symlink(m_path.c_str(), (m_folder / "link").c_str()), 0);
    EXPECT_NE(Engine::GuardedFile::WhyNot(m_folder / "link", Others::MAY_READ), "");
}

}  // namespace
