#pragma once

#include <string>

namespace TestSupport {

/// A folder of a test's own that is removed, with all in it, when the object is.
class TemporaryFolder {
public:
    /// @param parent  where it is made; the default is the host's place for such things
    explicit TemporaryFolder(const std::string& parent = "");
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return Path() + '/' + name; }

    /// Writes a file in one go. @return its path
    std::string Write(const std::string& name, const std::string& text) const;

    /// Writes a file under another name and renames it over the old one, as editors do.
    std::string Replace(const std::string& name, const std::string& text) const;

private:
    std::string m_path;
};

/// The whole text of a file; empty when there is none.
std::string ReadText(const std::string& path);

}  // namespace TestSupport
