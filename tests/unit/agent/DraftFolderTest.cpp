#include "DraftFolder.h"

#include "FileTrust.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using Agent::DraftFolder;

class Drafts : public testing::Test {
protected:
    const TestSupport::TemporaryFolder m_above;
    const DraftFolder m_folder{m_above / "drafts"};
};

TEST_F(Drafts, LieInAFolderThatIsMade) {
    EXPECT_EQ(m_folder.Prepare({"/no/such/folder"}, {"a.json"}), "");
    EXPECT_EQ(m_folder.Write("a.json", "text"), "");
    EXPECT_EQ(TestSupport::ReadText(m_above / "drafts/a.json"), "text");
    EXPECT_EQ(m_folder.PathOf("a.json"), m_above / "drafts/a.json");
}

TEST_F(Drafts, AreTrustedWhateverTheUmaskIs) {
    EXPECT_EQ(m_folder.Prepare({}, {}), "");
    const mode_t before = ::umask(0);
    for (const mode_t mask : {0U, 077U, 0777U}) {
        ::umask(mask);
        const std::string name = std::to_string(mask);
        EXPECT_EQ(m_folder.Write(name, "text"), "");
        EXPECT_EQ(Agent::FileTrust::WhyNot(m_folder.PathOf(name)), "");
        EXPECT_EQ(static_cast<unsigned>(fs::status(m_folder.PathOf(name)).permissions()), 0640U);
    }
    ::umask(before);
}

TEST_F(Drafts, NeverLieWherePoliciesAreInForce) {
    fs::create_directory(m_above / "policies");
    fs::create_symlink("policies", m_above / "drafts");
    EXPECT_EQ(m_folder.Prepare({"/no/such/folder", m_above / "policies"}, {}),
              m_above / "drafts is where policies are in force, expected another folder");
}

TEST_F(Drafts, AreNotWrittenOver) {
    ASSERT_EQ(m_folder.Prepare({}, {}), "");
    // A link that leads nowhere is there as well.
    fs::create_symlink("nowhere", m_folder.PathOf("b.json"));
    EXPECT_EQ(m_folder.Prepare({}, {"a.json"}), "");
    EXPECT_EQ(m_folder.Prepare({}, {"a.json", "b.json"}),
              m_above / "drafts/b.json is there already and is not written over");
    EXPECT_EQ(m_folder.Write("b.json", "text"),
              m_above / "drafts/b.json cannot be made: File exists");
    EXPECT_FALSE(fs::exists(m_above / "drafts/nowhere"));
}

TEST_F(Drafts, NeedAFolder) {
    EXPECT_EQ(DraftFolder(m_above / "no/such").Prepare({}, {}),
              m_above / "no/such cannot be made: No such file or directory");
    m_above.Write("drafts", "");
    EXPECT_EQ(m_folder.Prepare({}, {}), m_above / "drafts is no folder");
}

TEST_F(Drafts, LeaveNoPartOfAFileThatDidNotFit) {
    ASSERT_EQ(m_folder.Prepare({}, {}), "");
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{2, before.rlim_max};
    ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string wrong = m_folder.Write("a.json", "text");
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    ::signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(wrong.rfind(m_above / "drafts/a.json cannot be written: ", 0), 0U) << wrong;
    EXPECT_FALSE(fs::exists(m_folder.PathOf("a.json")));
}

}  // namespace
