#pragma once

#include <string>
#include <string_view>

namespace SDK {

/// Path helpers. Stateless: any thread may call any function at any time.
class PathUtils {
public:
    /// The last component of a path: everything behind the last '/', the whole text when there is
    /// none, and an empty text when the path ends in '/'.
    static std::string GetFileNameFromPath(const std::string& path);

    /// A path without slashes that say nothing: repeated ones, and one at the end.
    static std::string RemoveIdleSlashes(const std::string& path);

    /// Whether a path is a directory or lies below it, as texts: both absolute, without slashes
    /// that say nothing.
    static bool IsWithin(std::string_view path, std::string_view directory);
};

}  // namespace SDK
