#pragma once

#include <string>
#include <string_view>

namespace FileNotify {

/// Absolute paths as plain texts, without a slash at the end. Stateless.
class WatchPath {
public:
    /// Removes slashes that say nothing. @return empty for a path that is not absolute
    static std::string Clean(const std::string& path);

    /// The directory above; "/" is above itself.
    static std::string Above(const std::string& path);

    /// A name in a directory.
    static std::string Join(const std::string& directory, std::string_view name);

    /// Resolves all symbolic links. @return empty when it does not lead to a directory (errno)
    static std::string RealDirectory(const std::string& path);
};

}  // namespace FileNotify
