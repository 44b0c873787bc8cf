#pragma once

#include <map>
#include <string>

namespace Replay {

/// The directories whose accesses are in the recording.
///
/// Threads: one at a time.
class RecordedWatches {
public:
    /// A directory was watched from some moment on.
    /// @param real  where it led, "" when it was not there
    void Add(const std::string& path, const std::string& real);

    /// Whether accesses in a directory can be in the recording.
    bool Cover(const std::string& path) const;

    /// Where a directory led on the recorded host, as far as the recording tells. Accesses are
    /// named by that.
    std::string Resolve(const std::string& path) const;

private:
    std::map<std::string, std::string> m_real;  // by the path that was asked for
};

}  // namespace Replay
