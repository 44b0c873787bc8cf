#include "sdk/PathUtils.h"

namespace SDK {

std::string PathUtils::GetFileNameFromPath(const std::string& path) {
    // Without a '/' find_last_of gives npos, and npos + 1 is 0: the whole text.
    return path.substr(path.find_last_of('/') + 1);
}

}  // namespace SDK
