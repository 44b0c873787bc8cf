#pragma once

namespace Agent {

/// How the program ends. Scripts and service managers rely on the numbers.
enum ExitCode : int {
    EXIT_GOOD = 0,
    EXIT_FAILED = 1,  ///< something that was needed did not work; the log says what
    EXIT_USAGE = 2,   ///< the command line is not understood
    EXIT_INCOMPLETE =
        3,  ///< policies were learned, but something stays an alarm; the result says what
    EXIT_PRIVILEGE = 4,  ///< a privilege is missing; standard error says which
    EXIT_BAD_INPUT = 6,  ///< a configuration or policy file is wrong
};

}  // namespace Agent
