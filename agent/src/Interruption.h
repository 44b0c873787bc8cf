#pragma once

#include <signal.h>

#include <array>

namespace Agent {

/// Notes SIGINT, SIGTERM and SIGHUP instead of letting them end the program, for as long as it
/// lives: what was made can be taken away, and what was done so far be kept. Waiting calls come
/// back with EINTR. A signal that was ignored before (nohup) stays ignored.
///
/// Nor does SIGPIPE end it: a write to what nobody reads fails.
///
/// Threads: the main one; one object at a time.
class Interruption {
public:
    Interruption();

    /// What signals did before, they do again.
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Whether a signal has come since the object was made; false when there is none.
    static bool Came();

    /// What is handled while there is one.
    static constexpr std::array<int, 4> SIGNALS = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

private:
    std::array<struct sigaction, SIGNALS.size()> m_before{};
};

}  // namespace Agent
