#include "sdk/PathUtils.h"

namespace SDK {

std::string PathUtils::GetFileNameFromPath(const std::string& path) {
    // Without a '/' find_last_of gives npos, and npos + 1 is 0: the whole text.
    return path.substr(path.find_last_of('/') + 1);
}

std::string PathUtils::RemoveIdleSlashes(const std::string& path) {
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

bool PathUtils::IsWithin(std::string_view path, std::string_view directory) {
    if (directory == "/") {
        return true;
    }
    return path.substr(0, directory.size()) == directory &&
           (path.size() == directory.size() || path[directory.size()] == '/');
}

}  // namespace SDK
