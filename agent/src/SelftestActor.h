#pragma once

#include <istream>
#include <ostream>
#include <string>

namespace Agent {

/// Plays a virtual machine that somebody has broken out of: what it is told to do on its standard
/// input, a machine should not do. Nothing of it harms the host.
///
///     command     starts a program that does nothing
///     file PATH   opens a file, reads from it and closes it
///     port        listens on a loopback address, on a port that is free, until it ends
class SelftestActor {
public:
    /// Obeys until the input ends. Before each act it writes a line with the monotonic clock's
    /// time in nanoseconds, after an act that failed one that begins with "failed: ".
    /// @return an ExitCode
    static int Run(std::istream& orders, std::ostream& answers);
};

}  // namespace Agent
