#pragma once

namespace Agent {

/// Becomes the program that replays a recording, which lies beside this one.
/// @param argv  of this program
/// @return EXIT_FAILED when it cannot be run; else it does not return
int BecomePlayer(char* const* argv);

}  // namespace Agent
