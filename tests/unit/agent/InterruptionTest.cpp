#include "Interruption.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <thread>

namespace {

using Agent::Interruption;

TEST(Interruption, IsNotedWhicheverSignalItIs) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const Interruption interruption;
        EXPECT_FALSE(Interruption::Came());
        ::raise(signal);
        EXPECT_TRUE(Interruption::Came());
    }
}

TEST(Interruption, EndsACallThatWaits) {
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

TEST(Interruption, IsOverWithItsObject) {
    {
        const Interruption interruption;
        ::raise(SIGTERM);
    }
    EXPECT_EXIT(::raise(SIGTERM), testing::KilledBySignal(SIGTERM), "");
    EXPECT_FALSE(Interruption::Came());
}

}  // namespace
