#include "support/ReplacedSleep.h"

#include <chrono>
#include <thread>
#include <utility>

namespace TestSupport {

namespace {

// Empty: this thread sleeps.
thread_local std::function<void(useconds_t)> g_instead;

}  // namespace

ReplacedSleep::ReplacedSleep(std::function<void(useconds_t)> instead) {
    g_instead = std::move(instead);
}

ReplacedSleep::~ReplacedSleep() { g_instead = nullptr; }

}  // namespace TestSupport

/// Stands before the C library's function in test programs.
extern "C" int usleep(useconds_t microseconds) {
    if (TestSupport::g_instead) {
        TestSupport::g_instead(microseconds);
    } else {
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    }
    return 0;
}
