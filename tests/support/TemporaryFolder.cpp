#include "support/TemporaryFolder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace TestSupport {

TemporaryFolder::TemporaryFolder(const std::string& parent)
    : m_path((parent.empty() ? std::filesystem::temp_directory_path().string() : parent) +
             "/vmescape-test-XXXXXX") {
    // A name that no earlier test had, whatever was left behind.
    if (::mkdtemp(m_path.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), m_path);
    }
    ::chmod(m_path.c_str(), S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TemporaryFolder::Write(const std::string& name, const std::string& text) const {
    const std::string path = *this / name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

std::string TemporaryFolder::Replace(const std::string& name, const std::string& text) const {
    const std::string written = Write('.' + name + ".new", text);
    std::filesystem::rename(written, *this / name);
    return *this / name;
}

std::string ReadText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

}  // namespace TestSupport
