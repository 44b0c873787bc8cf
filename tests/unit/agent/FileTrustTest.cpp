#include "FileTrust.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace {

class FileTrust : public testing::Test {
protected:
    FileTrust() { ::chmod(m_folder.Path().c_str(), 0755); }

    std::string WhyNot() const { return Agent::FileTrust::WhyNot(m_file); }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_file = m_folder.Write("policy.json", "{}");
    static constexpr uid_t NOBODY = 65534;
};

TEST_F(FileTrust, IsGivenToFilesThatOnlyTheirOwnerWrites) {
    for (const mode_t mode : {0644, 0600, 0444, 0755}) {
        ::chmod(m_file.c_str(), mode);
        EXPECT_EQ(WhyNot(), "") << std::oct << mode;
    }
}

TEST_F(FileTrust, IsNotGivenToAFileThatAllMayWrite) {
    ::chmod(m_file.c_str(), 0646);
    EXPECT_EQ(WhyNot(),
              m_file + " may be written by others (mode 0646), expected 0755 at the most");
}

TEST_F(FileTrust, IsNotGivenToAFileInAFolderThatAllMayWrite) {
    ::chmod(m_folder.Path().c_str(), 0777);
    EXPECT_EQ(WhyNot(),
              m_folder.Path() + " may be written by others (mode 0777), expected 0755 at the most");
}

TEST_F(FileTrust, IsGivenInASharedFolderWithTheStickyBit) {
    ::chmod(m_folder.Path().c_str(), 01777);
    EXPECT_EQ(WhyNot(), "");
}

TEST_F(FileTrust, LooksAtTheFileBehindALink) {
    const std::string link = m_folder / "link.json";
    std::filesystem::create_symlink(m_file, link);
    EXPECT_EQ(Agent::FileTrust::WhyNot(link), "");
    ::chmod(m_file.c_str(), 0666);
    EXPECT_NE(Agent::FileTrust::WhyNot(link).find(m_file + " may be written"), std::string::npos);
}

TEST_F(FileTrust, HasNothingToSayOfAFileThatIsNotThere) {
    EXPECT_EQ(Agent::FileTrust::WhyNot(m_folder / "missing"), "");
}

class FileTrustOfRoot : public FileTrust {
protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root";
            GTEST_SKIP() << "needs root to give files away";
        }
    }
};

TEST_F(FileTrustOfRoot, IsNotGivenToAFileOfSomebodyElse) {
    ASSERT_EQ(::chown(m_file.c_str(), NOBODY, 0), 0);
    EXPECT_EQ(WhyNot(),
              m_file + " belongs to user 65534, expected root or the user who runs the agent");
}

TEST_F(FileTrustOfRoot, IsNotGivenToAFileInAFolderOfSomebodyElse) {
    ASSERT_EQ(::chown(m_folder.Path().c_str(), NOBODY, 0), 0);
    EXPECT_EQ(WhyNot().rfind(m_folder.Path() + " belongs to user 65534", 0), 0U);
}

TEST_F(FileTrustOfRoot, IsGivenToTheGroupOfRootOnly) {
    ::chmod(m_file.c_str(), 0664);
    ASSERT_EQ(::chown(m_file.c_str(), 0, 0), 0);
    EXPECT_EQ(WhyNot(), "");
    ASSERT_EQ(::chown(m_file.c_str(), 0, NOBODY), 0);
    EXPECT_NE(WhyNot().find("may be written by others (mode 0664)"), std::string::npos);
}

}  // namespace
