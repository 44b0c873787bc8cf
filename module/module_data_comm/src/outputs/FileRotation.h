#pragma once

#include "sdk/UniqueDescriptor.h"

#include <cstdint>
#include <set>
#include <string>

namespace Engine {

/// Keeps a file below a size: PATH becomes PATH.1, what was that PATH.2, and so on to the oldest,
/// which is removed; a new PATH takes its place. Every step is one rename, so that at no moment a
/// line is missing or torn.
///
/// Files PATH.0 to PATH.<MOST> are taken for its own, whoever made them.
///
/// Threads: one at a time.
class FileRotation {
public:
    /// As many as can be kept.
    static constexpr int MOST = 999;

    /// @param limit  bytes; 0: no limit
    /// @param keep   how many rotated files are kept, 1 to MOST
    FileRotation(std::string path, std::uint64_t limit, int keep);

    /// Whether a file has no room for more bytes. One that is empty takes them whatever the limit.
    bool IsDue(std::uint64_t size, std::uint64_t more) const;

    /// Rotates, and makes a new file with the mode and the owner of the old one. Where it may not
    /// give it that owner, it stays its own (logged).
    /// @param why  set when it could not; the file then still has its name, or is PATH.1
    /// @return the new file, open to append; none when it could not
    SDK::UniqueDescriptor Rotate(std::string& why) const;

    /// Removes the oldest rotated file, to make room (logged with its size).
    /// @return false when there is none, or it cannot be removed (logged)
    bool RemoveOldest() const;

private:
    SDK::UniqueDescriptor MakeFresh(std::string& why) const;
    bool Shift(std::string& why) const;
    bool Rename(const std::string& from, const std::string& to, std::string& why) const;
    void RemoveBeyond() const;
    bool FindRotated(std::set<int>& numbers, std::string& why) const;
    std::string Numbered(int number) const;

    const std::string m_path;
    const std::uint64_t m_limit;
    const int m_keep;
};

}  // namespace Engine
