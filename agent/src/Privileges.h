#pragma once

#include <string>
#include <vector>

namespace Agent {

/// What the agent may do on this host.
class Privileges {
public:
    /// The capabilities that are missing, each with what it is needed for. Empty: all is there.
    /// @param source  the configured source of process events: "auto", "bpf" or "connector"
    /// @param files   file accesses have to be followed too
    static std::vector<std::string> Missing(const std::string& source, bool files);

    /// Gives up, for good, every capability that watching does not need, and the chance to win one
    /// by starting a program. Capabilities belong to threads: to be called before the first other
    /// thread starts.
    /// @param source  as above
    /// @return what is wrong, or "": all was given up
    static std::string KeepNeeded(const std::string& source);

    /// Gives up every capability, for good. To be called before the first other thread starts.
    /// @return what is wrong, or "": all was given up
    static std::string KeepNone();

private:
    static std::string Keep(const std::vector<unsigned int>& capabilities);
};

}  // namespace Agent
