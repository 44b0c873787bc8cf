#include "StatusServer.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

namespace {

class StatusServer : public testing::Test {
protected:
    /// Asks while the server answers once. @return what came, or what was wrong
    std::string Ask(const std::string& text) {
        std::string answer;
        std::string wrong;
        std::thread asking([&] { wrong = Agent::StatusServer::Ask(m_path, answer); });
        pollfd waited{m_server.Descriptor(), POLLIN, 0};
        ::poll(&waited, 1, 20000);
        m_server.Answer([&] { return text; });
        asking.join();
        return wrong.empty() ? answer : wrong;
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "run/agent.sock";
    Agent::StatusServer m_server;
};

TEST_F(StatusServer, AnswersAtAPathWhoseFolderItMakes) {
    ASSERT_EQ(m_server.Open(m_path), "");
    EXPECT_EQ(Ask("fine"), "fine");
    EXPECT_EQ(Ask("still fine"), "still fine");
}

TEST_F(StatusServer, AnswersWithAHundredThousandBytes) {
    ASSERT_EQ(m_server.Open(m_path), "");
    EXPECT_EQ(Ask(std::string(100000, 'x')).length(), 100000U);
}

TEST_F(StatusServer, IsNotHeldUpByWhoDoesNotRead) {
    ASSERT_EQ(m_server.Open(m_path), "");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const SDK::UniqueDescriptor silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(silent.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);
    m_server.Answer([] { return std::string(10 << 20, 'x'); });
    EXPECT_EQ(Ask("fine"), "fine");
}

TEST_F(StatusServer, TakesItsSocketAway) {
    ASSERT_EQ(m_server.Open(m_path), "");
    m_server.Close();
    EXPECT_FALSE(std::filesystem::exists(m_path));
    std::string answer;
    EXPECT_EQ(Agent::StatusServer::Ask(m_path, answer), "No such file or directory");
}

TEST_F(StatusServer, ThatStandsStillIsNotWaitedForForever) {
    ASSERT_EQ(m_server.Open(m_path), "");
    // As many as it keeps waiting, and one more, who cannot even connect.
    std::vector<std::thread> askers;
    std::atomic<int> gaveUp{0};
    for (int i = 0; i < 32; ++i) {
        askers.emplace_back([&] {
            std::string answer;
            gaveUp += Agent::StatusServer::Ask(m_path, answer) == "it does not answer within 5 s";
        });
    }
    for (std::thread& asker : askers) {
        asker.join();
    }
    EXPECT_EQ(gaveUp, 32);
}

}  // namespace
