#include "StatusServer.h"

#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

namespace {

class StatusServer : public testing::Test {
protected:
    using Handler = Agent::StatusServer::Handler;

    /// Answers whenever there is something to do, until a condition holds.
    bool ServeUntil(const std::function<bool()>& condition, const Handler& handler) {
        pollfd waited{m_server.Descriptor(), POLLIN, 0};
        return TestSupport::WaitUntil(
            [&] {
                if (::poll(&waited, 1, 0) > 0) {
                    m_server.Answer(handler);
                }
                return condition();
            },
            std::chrono::seconds(20));
    }

    /// Asks while the server answers. @return what came, or what was wrong
    std::string Ask(const std::string& text, const std::string& request = "status") {
        std::string answer;
        std::string wrong;
        std::atomic<bool> done{false};
        std::thread asking([&] {
            wrong = Agent::StatusServer::Ask(m_path, request, answer);
            done = true;
        });
        EXPECT_TRUE(ServeUntil([&] { return done.load(); },
                               [&](const std::string& asked) {
                                   m_asked.push_back(asked);
                                   return text;
                               }));
        asking.join();
        return wrong.empty() ? answer : wrong;
    }

    /// Connects, and sends what it is given. @return a link that waits for nothing
    SDK::UniqueDescriptor Connect(const std::string& bytes = "") const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        SDK::UniqueDescriptor link(
            ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        EXPECT_EQ(
            ::connect(link.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        Send(link, bytes);
        return link;
    }
    static void Send(const SDK::UniqueDescriptor& link, const std::string& bytes) {
        EXPECT_EQ(::send(link.Get(), bytes.data(), bytes.length(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.length()));
    }

    /// Reads what has come. @return whether the server has hung up
    static bool HungUp(const SDK::UniqueDescriptor& link, std::string& text) {
        std::array<char, 65536> bytes{};
        ssize_t got = 0;
        while ((got = ::recv(link.Get(), bytes.data(), bytes.size(), 0)) > 0) {
            text.append(bytes.data(), static_cast<std::size_t>(got));
        }
        return got == 0 || errno != EAGAIN;
    }
    static bool HungUp(const SDK::UniqueDescriptor& link) {
        std::string ignored;
        return HungUp(link, ignored);
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "run/agent.sock";
    Agent::StatusServer m_server;
    std::vector<std::string> m_asked;  // the requests that came
};

TEST_F(StatusServer, AnswersAtAPathWhoseFolderItMakes) {
    ASSERT_EQ(m_server.Open(m_path), "");
    EXPECT_EQ(Ask("fine"), "fine");
    EXPECT_EQ(Ask("still fine"), "still fine");
}

TEST_F(StatusServer, AnswersWithTenMillionBytes) {
    ASSERT_EQ(m_server.Open(m_path), "");
    // More than any socket holds: it is sent piece by piece.
    EXPECT_EQ(Ask(std::string(10000000, 'x')), std::string(10000000, 'x'));
}

TEST_F(StatusServer, AnswersWhatItIsAskedFor) {
    ASSERT_EQ(m_server.Open(m_path), "");
    EXPECT_EQ(Ask("fine", "status"), "fine");
    EXPECT_EQ(Ask("fine", "list"), "fine");
    EXPECT_EQ(Ask("fine", ""), "fine");
    EXPECT_EQ(m_asked, (std::vector<std::string>{"status", "list", ""}));
}

TEST_F(StatusServer, WaitsForTheEndOfTheLineAndCountsTheEndOfTheConnectionAsOne) {
    ASSERT_EQ(m_server.Open(m_path), "");
    std::vector<std::string> asked;
    const Handler note = [&](const std::string& request) {
        asked.push_back(request);
        return request;
    };
    const SDK::UniqueDescriptor slow = Connect("sta");
    const SDK::UniqueDescriptor other = Connect("list");
    ::shutdown(other.Get(), SHUT_WR);
    EXPECT_TRUE(ServeUntil([&] { return asked.size() == 1; }, note));
    EXPECT_EQ(asked.back(), "list") << "of the other one, while nothing is known of the first";
    Send(slow, "tus\nand more");
    EXPECT_TRUE(ServeUntil([&] { return asked.size() == 2; }, note));
    EXPECT_EQ(asked.back(), "status");
    std::string answer;
    EXPECT_TRUE(HungUp(slow, answer));
    EXPECT_EQ(answer, "status");
}

TEST_F(StatusServer, ReadsOfALongRequestItsBeginning) {
    ASSERT_EQ(m_server.Open(m_path), "");
    EXPECT_EQ(Ask("fine", std::string(50000, 'x')), "fine");
    EXPECT_EQ(m_asked, std::vector<std::string>{std::string(256, 'x')});
}

TEST_F(StatusServer, AnswersOthersWhileOneSaysNothingAndDropsThatOneAfterSomeSeconds) {
    ASSERT_EQ(m_server.Open(m_path), "");
    TestSupport::CapturedLog log;
    const SDK::UniqueDescriptor silent = Connect();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Ask("fine"), "fine");
    EXPECT_FALSE(HungUp(silent));
    EXPECT_TRUE(ServeUntil([&] { return HungUp(silent); }, [](const auto&) { return "late"; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4500));
    ASSERT_EQ(log.Lines().size(), 1U);
    EXPECT_EQ(log.Lines()[0].text, "A client that asked nothing for 5 s is dropped");
}

TEST_F(StatusServer, SleepsWhileNobodyAsks) {
    ASSERT_EQ(m_server.Open(m_path), "");
    { const SDK::UniqueDescriptor gone = Connect(); }
    const SDK::UniqueDescriptor silent = Connect();
    for (int i = 0; i < 3; ++i) {
        m_server.Answer([](const auto&) { return "x"; });
    }
    pollfd waited{m_server.Descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&waited, 1, 0), 0) << "one that says nothing is nothing to do";
}

TEST_F(StatusServer, KeepsSixteenClientsAndDropsTheOldestForANewOne) {
    ASSERT_EQ(m_server.Open(m_path), "");
    TestSupport::CapturedLog log;
    std::vector<SDK::UniqueDescriptor> silent;
    const auto answer = [](const std::string&) { return std::string("fine"); };
    for (std::size_t i = 0; i < Agent::StatusServer::MAX_CLIENTS + 2; ++i) {
        silent.push_back(Connect());
        m_server.Answer(answer);
    }
    EXPECT_TRUE(HungUp(silent[0]));
    EXPECT_TRUE(HungUp(silent[1]));
    ASSERT_EQ(log.Lines().size(), 2U);
    EXPECT_EQ(log.Lines()[0].text, "More than 16 clients ask at once, the oldest is dropped");
    for (std::size_t i = 2; i < silent.size(); ++i) {
        EXPECT_FALSE(HungUp(silent[i])) << i;
        Send(silent[i], "status\n");
        m_server.Answer(answer);
        std::string text;
        EXPECT_TRUE(HungUp(silent[i], text)) << i;
        EXPECT_EQ(text, "fine") << i;
    }
}

TEST_F(StatusServer, IsNotHeldUpByWhoDoesNotReadAndDropsHim) {
    ASSERT_EQ(m_server.Open(m_path), "");
    TestSupport::CapturedLog log;
    const SDK::UniqueDescriptor silent = Connect("status\n");
    m_server.Answer([](const auto&) { return std::string(10 << 20, 'x'); });
    EXPECT_EQ(Ask("fine"), "fine");
    EXPECT_TRUE(
        ServeUntil([&] { return log.Contains("A client that took nothing for 5 s is dropped"); },
                   [](const auto&) { return ""; }));
}

TEST_F(StatusServer, TakesItsSocketAway) {
    ASSERT_EQ(m_server.Open(m_path), "");
    m_server.Close();
    EXPECT_FALSE(std::filesystem::exists(m_path));
    std::string answer;
    EXPECT_EQ(Agent::StatusServer::Ask(m_path, "status", answer), "No such file or directory");
}

TEST_F(StatusServer, ThatStandsStillIsNotWaitedForForever) {
    ASSERT_EQ(m_server.Open(m_path), "");
    // As many as it keeps waiting, and one more, who cannot even connect.
    std::vector<std::thread> askers;
    std::atomic<int> gaveUp{0};
    for (int i = 0; i < 32; ++i) {
        askers.emplace_back([&] {
            std::string answer;
            gaveUp += Agent::StatusServer::Ask(m_path, "status", answer) ==
                      "it does not answer within 5 s";
        });
    }
    for (std::thread& asker : askers) {
        asker.join();
    }
    EXPECT_EQ(gaveUp, 32);
}

}  // namespace
