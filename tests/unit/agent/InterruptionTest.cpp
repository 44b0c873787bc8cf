#include "Interruption.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>

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
    std::thread other([self] { ::pthread_kill(self, SIGTERM); });
    // Should the signal come before the call, it is noted all the same.
    while (!Interruption::Came()) {
        EXPECT_EQ(::poll(nullptr, 0, 20000), -1);
        EXPECT_EQ(errno, EINTR);
    }
    other.join();
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
