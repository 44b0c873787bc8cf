#include "ScratchFolder.h"

#include <Poco/Exception.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace Agent {

namespace {

// An agent reads policies only where nobody else may write, whatever the umask is.
void KeepToUser(const std::string& path, mode_t mode) {
    if (::chmod(path.c_str(), mode) != 0) {
        throw Poco::SystemException(path + " cannot be kept to this user", errno);
    }
}

}  // namespace

ScratchFolder::ScratchFolder(const std::string& purpose) {
    std::string path = "/tmp/vmescape-" + purpose + "-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) {
        throw Poco::SystemException("a folder in /tmp cannot be made", errno);
    }
    m_path = path;
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string ScratchFolder::MakeFolder(const std::string& name) const {
    std::string path = m_path + '/' + name;
    std::filesystem::create_directories(path);
    KeepToUser(path, S_IRWXU);
    return path;
}

std::string ScratchFolder::Write(const std::string& name, const std::string& text) const {
    std::string path = m_path + '/' + name;
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file) {
        throw Poco::SystemException(path + " cannot be written", errno);
    }
    KeepToUser(path, S_IRUSR | S_IWUSR);
    return path;
}

}  // namespace Agent
