#include "DraftFolder.h"

#include "sdk/UniqueDescriptor.h"

#include <Poco/Error.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace Agent {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kFolderMode = 0750;
constexpr mode_t kFileMode = 0640;

std::string Complaint(const std::string& path, const std::string& what) {
    return path + ' ' + what + ": " + Poco::Error::getMessage(errno);
}

bool WriteAll(int file, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(file, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(written, 0));
    }
    // What days were spent on must outlive a power cut.
    return ::fchmod(file, kFileMode) == 0 && ::fsync(file) == 0;
}

}  // namespace

std::string DraftFolder::Prepare(const std::vector<std::string>& inForce,
                                 const std::vector<std::string>& files) const {
    if (::mkdir(m_path.c_str(), kFolderMode) != 0 && errno != EEXIST) {
        return Complaint(m_path, "cannot be made");
    }
    if (!fs::is_directory(m_path)) {
        return m_path + " is no folder";
    }
    for (const std::string& folder : inForce) {
        std::error_code missing;
        if (fs::equivalent(m_path, folder, missing)) {
            return m_path + " is where policies are in force, expected another folder";
        }
    }
    for (const std::string& name : files) {
        struct stat status {};
        if (::lstat(PathOf(name).c_str(), &status) == 0) {
            return PathOf(name) + " is there already and is not written over";
        }
    }
    if (::access(m_path.c_str(), W_OK | X_OK) != 0) {
        return Complaint(m_path, "cannot be written");
    }
    return "";
}

std::string DraftFolder::Write(const std::string& name, const std::string& text) const {
    const std::string path = PathOf(name);
    // O_EXCL: neither what came meanwhile is written over, nor what a link leads to.
    const SDK::UniqueDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    if (!file) {
        return Complaint(path, "cannot be made");
    }
    if (WriteAll(file.Get(), text)) {
        return "";
    }
    std::string wrong = Complaint(path, "cannot be written");
    ::unlink(path.c_str());
    return wrong;
}

}  // namespace Agent
