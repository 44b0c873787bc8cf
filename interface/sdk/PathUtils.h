#pragma once

#include <string>

namespace SDK {

/// Path helpers. Stateless: any thread may call any function at any time.
class PathUtils {
public:
    /// The last component of a path: everything behind the last '/', the whole text when there is
    /// none, and an empty text when the path ends in '/'.
    static std::string GetFileNameFromPath(const std::string& path);
};

}  // namespace SDK
