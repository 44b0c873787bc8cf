#include "RecordedWatches.h"

#include "sdk/PathUtils.h"

#include <algorithm>

namespace Replay {

using SDK::PathUtils;

void RecordedWatches::Add(const std::string& path, const std::string& real) {
    const std::string clean = PathUtils::RemoveIdleSlashes(path);
    // One that was not there at first may have been asked for again when it was.
    if (!real.empty() || m_real.count(clean) == 0) {
        m_real[clean] = real.empty() ? clean : PathUtils::RemoveIdleSlashes(real);
    }
}

bool RecordedWatches::Cover(const std::string& path) const {
    const std::string clean = PathUtils::RemoveIdleSlashes(path);
    return std::any_of(m_real.begin(), m_real.end(), [&clean](const auto& watch) {
        return PathUtils::IsWithin(clean, watch.first) || PathUtils::IsWithin(clean, watch.second);
    });
}

std::string RecordedWatches::Resolve(const std::string& path) const {
    const std::string clean = PathUtils::RemoveIdleSlashes(path);
    std::string resolved = clean;
    std::size_t longest = 0;
    for (const auto& [asked, real] : m_real) {
        if (PathUtils::IsWithin(clean, asked) && asked.size() > longest) {
            longest = asked.size();
            resolved = asked == "/"
                           ? clean
                           : PathUtils::RemoveIdleSlashes(real + clean.substr(asked.size()));
        }
    }
    return resolved;
}

}  // namespace Replay
