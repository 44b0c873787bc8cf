#include "ProcReader.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using ProcessCollect::ProcReader;
using ProcessCollect::ProcSnapshot;

TEST(ProcReader, ReadsThisProcess) {
    ProcSnapshot snapshot;
    ASSERT_TRUE(ProcReader::Read(::getpid(), snapshot));
    EXPECT_EQ(snapshot.m_pid, ::getpid());
    EXPECT_EQ(snapshot.m_parentPid, ::getppid());
    const std::string path = std::filesystem::read_symlink("/proc/self/exe").string();
    EXPECT_EQ(snapshot.m_image->m_exePath, path);
    EXPECT_EQ(snapshot.m_image->m_name, std::filesystem::path(path).filename().string());
    EXPECT_FALSE(snapshot.m_image->m_cmdline.empty());
}

TEST(ProcReader, ListHoldsThisProcess) {
    std::vector<int> pids;
    ASSERT_TRUE(ProcReader::ListPids(pids));
    EXPECT_EQ(std::count(pids.begin(), pids.end(), ::getpid()), 1);
}

TEST(ProcReader, ProcessThatEndedIsNotRead) {
    const int pid = ::fork();
    if (pid == 0) {
        ::_exit(0);
    }
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    ProcSnapshot snapshot;
    snapshot.m_pid = -5;
    EXPECT_FALSE(ProcReader::Read(pid, snapshot));  // a zombie
    ::waitpid(pid, nullptr, 0);
    EXPECT_FALSE(ProcReader::Read(pid, snapshot));
    EXPECT_EQ(snapshot.m_pid, -5);
}

TEST(ProcReader, UnknownProcessHasNeitherPathNorArguments) {
    EXPECT_EQ(ProcReader::ReadExePath(-1), "");
    EXPECT_EQ(ProcReader::ReadArguments(-1), "");
}

TEST(ProcReader, ArgumentsAreNulEnded) {
    const std::string arguments = ProcReader::ReadArguments(::getpid());
    ASSERT_FALSE(arguments.empty());
    EXPECT_EQ(arguments.back(), '\0');
}

}  // namespace
