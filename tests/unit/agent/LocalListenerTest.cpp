#include "LocalListener.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <filesystem>

namespace {

class LocalListener : public testing::Test {
protected:
    /// A program that was killed leaves its socket behind.
    void LeaveASocket() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const SDK::UniqueDescriptor killed(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(
            ::bind(killed.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "run/socket";
    Agent::LocalListener m_listener;
};

TEST_F(LocalListener, ListensAtAPathWhoseFolderItMakes) {
    ASSERT_EQ(m_listener.Open(m_path), "");
    const SDK::UniqueDescriptor connected = Agent::LocalListener::Connect(m_path);
    ASSERT_TRUE(connected);
    const SDK::UniqueDescriptor accepted(
        ::accept4(m_listener.Descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(accepted);
}

TEST_F(LocalListener, LetsNobodyElseThanItsUserConnect) {
    ASSERT_EQ(m_listener.Open(m_path), "");
    struct stat status {};
    ASSERT_EQ(::stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST_F(LocalListener, TakesItsSocketAway) {
    ASSERT_EQ(m_listener.Open(m_path), "");
    EXPECT_EQ(m_listener.Close(), "");
    EXPECT_FALSE(std::filesystem::exists(m_path));
    EXPECT_EQ(m_listener.Descriptor(), -1);
    EXPECT_EQ(m_listener.Close(), "");
    EXPECT_FALSE(Agent::LocalListener::Connect(m_path));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LocalListener, SaysThatItsSocketCannotBeTakenAway) {
    ASSERT_EQ(m_listener.Open(m_path), "");
    std::filesystem::remove(m_path);
    EXPECT_EQ(m_listener.Close(), "No such file or directory");
}

TEST_F(LocalListener, ReplacesTheSocketOfAProgramThatWasKilled) {
    std::filesystem::create_directory(m_folder / "run");
    LeaveASocket();
    EXPECT_FALSE(Agent::LocalListener::Connect(m_path));
    ASSERT_EQ(m_listener.Open(m_path), "");
    EXPECT_TRUE(Agent::LocalListener::Connect(m_path));
}

TEST_F(LocalListener, LeavesTheSocketOfAProgramThatRuns) {
    ASSERT_EQ(m_listener.Open(m_path), "");
    Agent::LocalListener second;
    EXPECT_EQ(second.Open(m_path), "another program listens there");
    EXPECT_EQ(second.Close(), "");
    EXPECT_TRUE(Agent::LocalListener::Connect(m_path));
}

TEST_F(LocalListener, LeavesWhatIsNoSocket) {
    const std::string file = m_folder.Write("file", "precious");
    EXPECT_EQ(m_listener.Open(file), "Address already in use");
    EXPECT_EQ(TestSupport::ReadText(file), "precious");
}

TEST_F(LocalListener, SaysThatAPathIsTooLong) {
    EXPECT_EQ(m_listener.Open('/' + std::string(200, 'x')), "File name too long");
    EXPECT_EQ(m_listener.Descriptor(), -1);
}

}  // namespace
