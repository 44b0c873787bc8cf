#pragma once

#include <functional>

namespace Agent {

/// Does a program's work, and makes sure that whoever started it learns how it went: an exception
/// is told on standard error, and so is a result that standard output did not take.
/// @param work  returns an exit status
/// @return that; EXIT_FAILED in those two cases
int ExitStatusOf(const std::function<int()>& work);

}  // namespace Agent
