#include "CommandEntry.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using Agent::CommandEntry;

class CommandEntries : public testing::Test {
protected:
    CommandEntries() {
        m_folder.Write("helper", "");
        m_folder.Write("python3.11", "");
        m_folder.Write("multi", "");
        fs::create_symlink("python3.11", m_folder / "python3");
        fs::create_symlink("multi", m_folder / "alias");
        fs::create_directory(m_folder / "link");
        fs::create_symlink("../helper", m_folder / "link/helper");
    }

    std::string Text(const std::string& name, const std::string& commandLine) const {
        return CommandEntry::Choose(name, commandLine, {m_folder.Path()}).m_text;
    }
    std::string Why(const std::string& name, const std::string& commandLine) const {
        const CommandEntry entry = CommandEntry::Choose(name, commandLine, {m_folder.Path()});
        EXPECT_EQ(entry.m_text, "");
        return entry.m_why;
    }

    TestSupport::TemporaryFolder m_folder;
};

TEST_F(CommandEntries, AreTheExecutablesPathWhateverTheArguments) {
    const std::string path = fs::canonical(m_folder / "helper").string();
    EXPECT_EQ(Text("helper", m_folder / "helper"), path);
    EXPECT_EQ(Text("helper", m_folder / "helper --fd=28"), path);
}

TEST_F(CommandEntries, FollowLinksToWhereTheProgramIs) {
    EXPECT_EQ(Text("helper", m_folder / "link/helper x"), fs::canonical(m_folder / "helper"));
}

TEST_F(CommandEntries, FindProgramsThatWereCalledByName) {
    EXPECT_EQ(Text("helper", "helper x"), fs::canonical(m_folder / "helper"));
    EXPECT_EQ(Text("helper", "helper"), fs::canonical(m_folder / "helper"));
}

TEST_F(CommandEntries, AreTheWholeCommandLineForInterpreters) {
    EXPECT_EQ(Text("python3.11", m_folder / "python3.11 a b"), m_folder / "python3.11 a b");
    EXPECT_EQ(Text("python3", m_folder / "python3 a b"), m_folder / "python3 a b");
    EXPECT_EQ(Text("sh", "sh -c id"), "sh -c id");
}

TEST_F(CommandEntries, AreTheWholeCommandLineForScripts) {
    // The kernel names the process by the script, whose interpreter is the first argument.
    EXPECT_EQ(Text("pve-bridge", m_folder / "helper /a/pve-bridge tap0"),
              m_folder / "helper /a/pve-bridge tap0");
}

TEST_F(CommandEntries, AreTheWholeCommandLineForProgramsOfSeveralNames) {
    EXPECT_EQ(Text("alias", m_folder / "alias x"), m_folder / "alias x");
    EXPECT_EQ(Text("alias", m_folder / "alias"), m_folder / "alias");
}

TEST_F(CommandEntries, AreTheWholeCommandLineWhenTheProgramIsNotThere) {
    EXPECT_EQ(Text("gone", "/no/such/gone x"), "/no/such/gone x");
    EXPECT_EQ(Text("gone", "/no/such/gone"), "/no/such/gone");
    EXPECT_EQ(Text("gone", "gone x"), "gone x");
    EXPECT_EQ(Text("gone", "./gone"), "./gone");
    EXPECT_EQ(Text("link", m_folder / "link x"), m_folder / "link x");
}

TEST_F(CommandEntries, AreNeverABareInterpreter) {
    for (const std::string& line : {m_folder / "python3", std::string("python3"),
                                    m_folder / "python3.11", std::string("/no/such/python3")}) {
        EXPECT_NE(Why("python3", line).find("interpreter"), std::string::npos) << line;
    }
    EXPECT_NE(Why("renamed", "bash").find("interpreter"), std::string::npos);
}

TEST_F(CommandEntries, AreNeverABareName) {
    EXPECT_NE(Why("gone", "gone").find("every program of that name"), std::string::npos);
    EXPECT_NE(Why("alias", "alias").find("every program of that name"), std::string::npos);
    EXPECT_NE(Why("x", "").find("every program of that name"), std::string::npos);
}

TEST_F(CommandEntries, HoldNoTextThatTheAlarmCouldNotTell) {
    EXPECT_NE(Why("gone", "/no/such/gone \xef\xbf\xbd").find("UTF-8"), std::string::npos);
    // Of the arguments the path says nothing.
    EXPECT_EQ(Text("helper", m_folder / "helper \xef\xbf\xbd"), fs::canonical(m_folder / "helper"));
}

TEST_F(CommandEntries, KnowInterpretersByNameAndVersion) {
    for (const char* name : {"sh", "bash", "perl", "perl5.36.0", "python3", "python3.11", "lua5.4",
                             "guile-3.0", "ld-linux-x86-64.so.2"}) {
        EXPECT_TRUE(CommandEntry::IsInterpreter(name)) << name;
    }
    for (const char* name : {"", "helper", "shred", "perldoc", "qemu-bridge-helper", "3", "ip"}) {
        EXPECT_FALSE(CommandEntry::IsInterpreter(name)) << name;
    }
}

TEST_F(CommandEntries, LookWhereShellsLook) {
    EXPECT_EQ(CommandEntry::Choose("true", "true").m_text, fs::canonical("/usr/bin/true"));
}

}  // namespace
