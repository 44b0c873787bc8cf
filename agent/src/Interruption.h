#pragma once

namespace Agent {

/// Notes SIGINT, SIGTERM and SIGHUP instead of letting them end the program, for as long as it
/// lives: what was made can be taken away, and what was done so far be kept. Waiting calls come
/// back with EINTR.
///
/// Threads: the main one; one object at a time.
class Interruption {
public:
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Whether a signal has come since the object was made; false when there is none.
    static bool Came();
};

}  // namespace Agent
