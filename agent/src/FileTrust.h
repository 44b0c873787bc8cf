#pragma once

#include <string>

namespace Agent {

/// Judges whether a file may tell an agent that runs as root what to do.
///
/// Whoever may write a policy can blind the agent, and whoever may write a module is root. So the
/// file and the folder it lies in must belong to root or to the user who runs the agent, and others
/// must have no right to write them. Folders further up are not examined: where they lie is the
/// administrator's choice.
class FileTrust {
public:
    /// Follows symbolic links: what counts is the file that would be read.
    /// @return what is wrong, with the file or folder that it is wrong with; "" when nothing is.
    ///         Also "" for a file that is not there: to tell of that is its reader's part
    static std::string WhyNot(const std::string& path);
};

}  // namespace Agent
