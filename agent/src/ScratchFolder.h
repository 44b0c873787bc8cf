#pragma once

#include <string>

namespace Agent {

/// A folder in /tmp that only this user may look into. It is removed, with all in it, when the
/// object is.
class ScratchFolder {
public:
    /// @param purpose  part of its name
    /// @throws Poco::SystemException when it cannot be made
    explicit ScratchFolder(const std::string& purpose);
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::string& Path() const { return m_path; }

    /// Makes a folder in it, with those above. @return its path
    std::string MakeFolder(const std::string& name) const;

    /// Writes a file in it. @return its path
    /// @throws Poco::SystemException when it cannot be written
    std::string Write(const std::string& name, const std::string& text) const;

private:
    std::string m_path;
};

}  // namespace Agent
