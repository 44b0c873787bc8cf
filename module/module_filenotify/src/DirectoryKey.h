#pragma once

#include "sdk/UniqueDescriptor.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace FileNotify {

/// A directory as the kernel names it in events: the id of its file system followed by its file
/// handle (name_to_handle_at(2)), byte by byte as in fanotify's information records. It stays the
/// same when the directory moves, and is never used for another one. Empty: no key.
using DirectoryKey = std::string;

/// Lets a key be looked up without copying it out of the kernel's record.
struct DirectoryKeyHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view key) const {
        return std::hash<std::string_view>{}(key);
    }
};

/// @return the key of an open directory; empty where the file system has no handles
DirectoryKey ReadDirectoryKey(int directory);

/// Opens the directory of a key, wherever it is now.
/// @param mount  any open directory of the same file system
/// @return nothing when it does not exist any more or cannot be opened (errno)
SDK::UniqueDescriptor OpenByKey(int mount, const DirectoryKey& key);

}  // namespace FileNotify
