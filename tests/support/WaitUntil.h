#pragma once

#include <chrono>
#include <functional>

namespace TestSupport {

/// Waits until a condition holds. The only place where tests sleep: a millisecond at a time,
/// between two looks.
/// @return whether it held before the deadline
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds deadline = std::chrono::seconds(30));

}  // namespace TestSupport
