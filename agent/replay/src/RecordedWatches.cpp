#include "RecordedWatches.h"

#include <algorithm>

namespace Replay {

void RecordedWatches::Add(const std::string& path, const std::string& real) {
    const std::string clean = Clean(path);
    // One that was not there at first may have been asked for again when it was.
    if (!real.empty() || m_real.count(clean) == 0) {
        m_real[clean] = real.empty() ? clean : Clean(real);
    }
}

bool RecordedWatches::Cover(const std::string& path) const {
    const std::string clean = Clean(path);
    return std::any_of(m_real.begin(), m_real.end(), [&clean](const auto& watch) {
        return IsWithin(clean, watch.first) || IsWithin(clean, watch.second);
    });
}

std::string RecordedWatches::Resolve(const std::string& path) const {
    const std::string clean = Clean(path);
    std::string resolved = clean;
    std::size_t longest = 0;
    for (const auto& [asked, real] : m_real) {
        if (IsWithin(clean, asked) && asked.size() > longest) {
            longest = asked.size();
            resolved = asked == "/" ? clean : Clean(real + clean.substr(asked.size()));
        }
    }
    return resolved;
}

bool RecordedWatches::IsWithin(std::string_view path, std::string_view directory) {
    if (directory == "/") {
        return true;
    }
    return path.substr(0, directory.size()) == directory &&
           (path.size() == directory.size() || path[directory.size()] == '/');
}

std::string RecordedWatches::Clean(const std::string& path) {
    std::string clean;
    for (const char character : path) {
        if (character != '/' || clean.empty() || clean.back() != '/') {
            clean += character;
        }
    }
    if (clean.size() > 1 && clean.back() == '/') {
        clean.pop_back();
    }
    return clean;
}

}  // namespace Replay
