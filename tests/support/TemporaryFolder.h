#pragma once

#include <Poco/TemporaryFile.h>

#include <string>

namespace TestSupport {

/// A folder of a test's own that is removed, with all in it, when the object is.
class TemporaryFolder {
public:
    TemporaryFolder() { m_folder.createDirectories(); }
    /// @param parent  where it is made
    explicit TemporaryFolder(const std::string& parent) : m_folder(parent) {
        m_folder.createDirectories();
    }

    const std::string& Path() const { return m_folder.path(); }
    std::string operator/(const std::string& name) const { return Path() + '/' + name; }

    /// Writes a file in one go. @return its path
    std::string Write(const std::string& name, const std::string& text) const;

    /// Writes a file under another name and renames it over the old one, as editors do.
    std::string Replace(const std::string& name, const std::string& text) const;

private:
    Poco::TemporaryFile m_folder;
};

/// The whole text of a file; empty when there is none.
std::string ReadText(const std::string& path);

}  // namespace TestSupport
