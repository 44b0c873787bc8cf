#pragma once

#include <cstddef>
#include <string>

namespace SDK {

/// File helpers. Stateless: any thread may call any function at any time.
class FileUtils {
public:
    /// Reads at most maxBytes bytes from the start of a file; works for /proc files, whose size is
    /// 0.
    /// @param truncated  set to true when the file holds more than maxBytes bytes
    /// @param content    replaced by what was read; unchanged on failure
    /// @return 0, or -1 when the file cannot be opened or read (errno says why)
    static int ReadFile(const std::string& path, bool& truncated, std::string& content,
                        std::size_t maxBytes);

    /// True when the path leads, through symbolic links too, to an existing regular file.
    static bool IsFile(const std::string& path);
};

}  // namespace SDK
