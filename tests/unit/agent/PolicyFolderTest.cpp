#include "PolicyFolder.h"

#include "JsonFile.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace {

namespace fs = std::filesystem;

using Reads = std::vector<std::string>;

constexpr auto kWarning = Poco::Message::PRIO_WARNING;

class PolicyFolder : public testing::Test {
protected:
    void Start(const std::string& path) {
        m_path = path;
        m_folder = std::make_unique<Agent::PolicyFolder>(
            path, Agent::PolicyFolder::Receiver{
                      [this](const std::string& file, const std::string& text) {
                          m_reads.push_back(file.substr(m_path.length() + 1) + "=" + text);
                      },
                      [this](const std::string& file, const std::string& why) {
                          m_refused[file.substr(m_path.length() + 1)] = why;
                      },
                      [this](const std::string& file) {
                          m_gone.push_back(file.substr(m_path.length() + 1));
                      }});
        ASSERT_TRUE(m_folder->Start());
    }

    bool Announces() const {
        pollfd waited{m_folder->Descriptor(), POLLIN, 0};
        return ::poll(&waited, 1, 0) > 0;
    }

    /// What is read of everything that is announced already.
    Reads Handle() {
        m_reads.clear();
        while (Announces()) {
            m_folder->HandleChanges();
        }
        return m_reads;
    }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_files;
    std::string m_path;
    std::unique_ptr<Agent::PolicyFolder> m_folder;
    Reads m_reads;
    std::map<std::string, std::string> m_refused;
    std::vector<std::string> m_gone;
};

TEST_F(PolicyFolder, ReadsItsPoliciesInTheOrderOfTheirNames) {
    m_files.Write("b.json", "2");
    m_files.Write("a.json", "1");
    m_files.Write("a.json~", "old");
    m_files.Write(".c.json", "hidden");
    m_files.Write("readme", "text");
    Start(m_files.Path());
    EXPECT_EQ(m_folder->ReadAll(), 2);
    EXPECT_EQ(m_reads, (Reads{"a.json=1", "b.json=2"}));
}

TEST_F(PolicyFolder, ReadsAFileThatWasWritten) {
    Start(m_files.Path());
    m_files.Write("a.json", "1");
    EXPECT_EQ(Handle(), Reads{"a.json=1"});
    m_files.Write("a.json", "2");
    EXPECT_EQ(Handle(), Reads{"a.json=2"});
    EXPECT_EQ(Handle(), Reads());
}

TEST_F(PolicyFolder, ReadsAFileThatWasReplaced) {
    Start(m_files.Path());
    m_files.Write("a.json", "1");
    Handle();
    m_files.Replace("a.json", "2");
    EXPECT_EQ(Handle(), Reads{"a.json=2"});
}

TEST_F(PolicyFolder, ReadsAFileOnceHoweverOftenItChanged) {
    Start(m_files.Path());
    for (int i = 0; i < 100; ++i) {
        m_files.Replace("a.json", std::to_string(i));
        m_files.Write("a.json", std::to_string(i));
    }
    EXPECT_EQ(Handle(), Reads{"a.json=99"});
}

TEST_F(PolicyFolder, WaitsForTheEndOfTheWriting) {
    Start(m_files.Path());
    std::ofstream file(m_files / "a.json");
    file << "half" << std::flush;
    EXPECT_EQ(Handle(), Reads());
    file << "whole";
    file.close();
    EXPECT_EQ(Handle(), Reads{"a.json=halfwhole"});
}

TEST_F(PolicyFolder, ReadsALinkThatIsNewOrExchanged) {
    Start(m_files.Path());
    fs::create_directory(m_files / "..v1");
    fs::create_directory(m_files / "..v2");
    m_files.Write("..v1/a.json", "1");
    m_files.Write("..v2/a.json", "2");
    fs::create_symlink("..v1", m_files / "..data");
    Handle();
    fs::create_symlink("..data/a.json", m_files / "a.json");
    EXPECT_EQ(Handle(), Reads{"a.json=1"});
    fs::create_symlink("..v2", m_files / "..new");
    fs::rename(m_files / "..new", m_files / "..data");
    EXPECT_EQ(Handle().back(), "a.json=2");
}

TEST_F(PolicyFolder, SaysThatARemovedPolicyStaysInForce) {
    m_files.Write("a.json", "1");
    Start(m_files.Path());
    fs::remove(m_files / "a.json");
    EXPECT_EQ(Handle(), Reads());
    EXPECT_EQ(m_log.Count(kWarning, "Policy file(a.json) is gone, what was in force stays"), 1U);
}

TEST_F(PolicyFolder, DoesNotCallAFileGoneThatAnEditorExchanged) {
    m_files.Write("a.json", "1");
    Start(m_files.Path());
    fs::rename(m_files / "a.json", m_files / "a.json~");
    m_files.Write("a.json", "2");
    EXPECT_EQ(Handle(), Reads{"a.json=2"});
    EXPECT_FALSE(m_log.Contains("is gone"));
}

TEST_F(PolicyFolder, TellsOfEveryFileThatWentWithItsFolder) {
    fs::create_directory(m_files / "p");
    m_files.Write("p/a.json", "1");
    m_files.Write("p/b.json", "2");
    Start(m_files / "p");
    m_folder->ReadAll();
    fs::rename(m_files / "p", m_files / "q");
    fs::create_directory(m_files / "p");
    m_files.Write("p/a.json", "3");
    Handle();
    EXPECT_EQ(m_gone, (std::vector<std::string>{"a.json", "b.json"}));
    EXPECT_EQ(m_reads.back(), "a.json=3");
}

TEST_F(PolicyFolder, TellsOfFilesThatAreMissingWhenAllAreRead) {
    m_files.Write("a.json", "1");
    m_files.Write("b.json", "2");
    Start(m_files.Path());
    m_folder->ReadAll();
    fs::remove(m_files / "b.json");
    EXPECT_EQ(m_folder->ReadAll(), 1);
    EXPECT_EQ(m_gone, std::vector<std::string>{"b.json"});
}

TEST_F(PolicyFolder, RefusesAFileThatIsTooLarge) {
    Start(m_files.Path());
    m_files.Write("a.json", "");
    fs::resize_file(m_files / "a.json", Agent::MAX_FILE_BYTES + 1);
    m_files.Write("b.json", "1");
    EXPECT_EQ(Handle(), Reads{"b.json=1"});
    EXPECT_TRUE(m_log.Contains("a.json: is too large, expected at most"));
    EXPECT_NE(m_refused["a.json"].find("is too large"), std::string::npos);
    fs::remove(m_files / "a.json");
    Handle();
    EXPECT_EQ(m_gone, std::vector<std::string>{"a.json"});
}

TEST_F(PolicyFolder, IsNotHeldUpByANamedPipe) {
    ASSERT_EQ(::mkfifo((m_files / "a.json").c_str(), 0600), 0);
    m_files.Write("b.json", "1");
    Start(m_files.Path());
    EXPECT_EQ(m_folder->ReadAll(), 1);
    EXPECT_TRUE(m_log.Contains("a.json: expected a regular file"));
}

TEST_F(PolicyFolder, ThatIsMissingIsReadWhenItComes) {
    Start(m_files / "x/policies");
    EXPECT_EQ(m_folder->ReadAll(), 0);
    fs::create_directories(m_files / "new/policies");
    m_files.Write("new/policies/a.json", "1");
    fs::rename(m_files / "new", m_files / "x");
    EXPECT_EQ(Handle(), Reads{"a.json=1"});
    m_files.Write("x/policies/b.json", "2");
    EXPECT_EQ(Handle(), Reads{"b.json=2"});
}

TEST_F(PolicyFolder, ThatIsMissingIsReadWhenItComesStepByStep) {
    Start(m_files / "x/y/policies");
    fs::create_directory(m_files / "x");
    Handle();
    fs::create_directory(m_files / "x/y");
    Handle();
    fs::create_directory(m_files / "x/y/policies");
    Handle();
    m_files.Write("x/y/policies/a.json", "1");
    EXPECT_EQ(Handle(), Reads{"a.json=1"});
}

TEST_F(PolicyFolder, ThatIsRemovedAndMadeAgainIsFollowed) {
    fs::create_directory(m_files / "p");
    m_files.Write("p/a.json", "1");
    Start(m_files / "p");
    fs::remove_all(m_files / "p");
    EXPECT_EQ(Handle(), Reads());
    EXPECT_TRUE(m_log.Contains("is gone, its policies stay in force"));
    fs::create_directory(m_files / "p");
    Handle();
    m_files.Write("p/a.json", "2");
    EXPECT_EQ(Handle(), Reads{"a.json=2"});
}

TEST_F(PolicyFolder, ThatIsRenamedAwayAndReplacedIsFollowed) {
    fs::create_directory(m_files / "p");
    fs::create_directory(m_files / "q");
    m_files.Write("q/a.json", "2");
    Start(m_files / "p");
    fs::rename(m_files / "p", m_files / "old");
    fs::rename(m_files / "q", m_files / "p");
    EXPECT_EQ(Handle(), Reads{"a.json=2"});
    m_files.Write("old/a.json", "3");
    EXPECT_EQ(Handle(), Reads());
    EXPECT_TRUE(m_log.Contains("is there again"));
}

TEST_F(PolicyFolder, IsQuietAboutItsNeighboursWhileItIsThere) {
    Start(m_files / "p");
    fs::create_directory(m_files / "p");
    Handle();
    fs::create_directory(m_files / "neighbour");
    EXPECT_FALSE(Announces());
}

TEST_F(PolicyFolder, RefusesAFileThatOthersMayWriteUntilItsModeIsMended) {
    Start(m_files.Path());
    fs::permissions(m_files.Write("a.json", "1"), fs::perms(0666));
    EXPECT_EQ(m_folder->ReadAll(), 0);
    EXPECT_TRUE(
        m_log.Contains("Policy(" + m_files / "a.json" + ") is refused, what was in force stays: "));
    EXPECT_TRUE(m_log.Contains("may be written by others (mode 0666)"));
    EXPECT_NE(m_refused["a.json"].find("(mode 0666)"), std::string::npos);
    Handle();
    m_reads.clear();
    fs::permissions(m_files / "a.json", fs::perms(0644));
    EXPECT_EQ(Handle(), Reads{"a.json=1"});
}

TEST_F(PolicyFolder, ThatOthersMayWriteIsRefusedUntilItsModeIsMended) {
    fs::create_directory(m_files / "p");
    m_files.Write("p/a.json", "1");
    fs::permissions(m_files / "p", fs::perms(0777));
    Start(m_files / "p");
    EXPECT_EQ(m_folder->ReadAll(), 0);
    fs::permissions(m_files / "p", fs::perms(0755));
    EXPECT_EQ(Handle(), Reads{"a.json=1"});
}

}  // namespace
