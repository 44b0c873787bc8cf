#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Agent {

/// A folder for policies that are still to be looked at: never the one in force, and nothing in it
/// is written over.
///
/// Threads: one.
class DraftFolder {
public:
    explicit DraftFolder(std::string path) : m_path(std::move(path)) {}

    /// Makes the folder when it is missing.
    /// @param inForce  folders that it must not be
    /// @param files    names that must not be there yet
    /// @return what is wrong, or ""
    std::string Prepare(const std::vector<std::string>& inForce,
                        const std::vector<std::string>& files) const;

    /// Writes a new file that only the user may write, and the group read.
    /// @return what is wrong, or ""; then no part of the file is left
    std::string Write(const std::string& name, const std::string& text) const;

    std::string PathOf(const std::string& name) const { return m_path + '/' + name; }

private:
    const std::string m_path;
};

}  // namespace Agent
