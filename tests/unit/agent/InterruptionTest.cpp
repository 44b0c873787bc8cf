#include "Interruption.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <thread>

namespace {

using Agent::Interruption;

/// Gives a signal another disposition for as long as it lives.
class Disposition {
public:
    Disposition(int signal, void (*handler)(int))
        : m_signal(signal), m_before(::signal(signal, handler)) {}
    ~Disposition() { ::signal(m_signal, m_before); }
    Disposition(const Disposition&) = delete;
    Disposition& operator=(const Disposition&) = delete;

private:
    const int m_signal;
    void (*const m_before)(int);
};

void (*HandlerOf(int signal))(int) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler;
}

TEST(Interruption, IsNotedWhicheverSignalItIs) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const Disposition standard(signal, SIG_DFL);
        const Interruption interruption;
        EXPECT_FALSE(Interruption::Came());
        ::raise(signal);
        EXPECT_TRUE(Interruption::Came());
    }
}

TEST(Interruption, EndsACallThatWaits) {
    const Disposition standard(SIGTERM, SIG_DFL);
    const Interruption interruption;
    const pthread_t self = ::pthread_self();
    std::atomic<bool> ended{false};
    // Sent again and again: a signal that comes before the call cannot end it.
    std::thread other([self, &ended] {
        while (!ended) {
            ::pthread_kill(self, SIGTERM);
            std::this_thread::yield();
        }
    });
    const int result = ::poll(nullptr, 0, -1);
    const int error = errno;
    ended = true;
    other.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
    EXPECT_TRUE(Interruption::Came());
}

TEST(Interruption, IsNoneBySignalsThatWereIgnoredBefore) {
    const Disposition standard(SIGTERM, SIG_DFL);
    const Disposition ignored(SIGHUP, SIG_IGN);
    {
        const Interruption interruption;
        ::raise(SIGHUP);
        EXPECT_FALSE(Interruption::Came());
        ::raise(SIGTERM);
        EXPECT_TRUE(Interruption::Came());
    }
    EXPECT_EQ(HandlerOf(SIGHUP), SIG_IGN);
}

TEST(Interruption, LeavesEverySignalAsItWas) {
    const auto handler = [](int /*signal*/) {};
    const Disposition own(SIGINT, handler);
    const Disposition standard(SIGPIPE, SIG_DFL);
    { const Interruption interruption; }
    EXPECT_EQ(HandlerOf(SIGINT), static_cast<void (*)(int)>(handler));
    EXPECT_EQ(HandlerOf(SIGPIPE), SIG_DFL);
}

TEST(Interruption, IsNoneByABrokenPipeWhichOnlyFailsTheWrite) {
    const Disposition standard(SIGPIPE, SIG_DFL);
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    ::close(ends[0]);
    // A library of ours holds it back, too.
    sigset_t pipe;
    sigset_t before;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_UNBLOCK, &pipe, &before);
    const Interruption interruption;
    EXPECT_EQ(::write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_FALSE(Interruption::Came());
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::close(ends[1]);
}

TEST(Interruption, IsOverWithItsObject) {
    const Disposition standard(SIGTERM, SIG_DFL);
    {
        const Interruption interruption;
        ::raise(SIGTERM);
    }
    EXPECT_EXIT(::raise(SIGTERM), testing::KilledBySignal(SIGTERM), "");
    EXPECT_FALSE(Interruption::Came());
}

}  // namespace
