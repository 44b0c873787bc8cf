#pragma once

#include <unistd.h>

#include <functional>

namespace TestSupport {

/// While it lives, what is called in place of usleep(3) by the thread that made it. Code that
/// sleeps between two looks is run through hours that way. One at a time for each thread.
class ReplacedSleep {
public:
    explicit ReplacedSleep(std::function<void(useconds_t)> instead);
    ~ReplacedSleep();
    ReplacedSleep(const ReplacedSleep&) = delete;
    ReplacedSleep& operator=(const ReplacedSleep&) = delete;
};

}  // namespace TestSupport
