#include "outputs/FileRotation.h"

#include "DataCommLog.h"

#include <Poco/Error.h>
#include <Poco/Format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

namespace Engine {

namespace {

namespace fs = std::filesystem;

// The name of the new file until it takes the place of the old one.
constexpr const char* kFresh = ".0";

constexpr mode_t kPermissions = 07777;

std::string LastError(const std::string& what, const std::string& path) {
    return Poco::format("%s(%s): %s", what, path, Poco::Error::getMessage(errno));
}

/// The number behind the dot, or 0 when this is no name of a rotated file.
int NumberOf(const std::string& name, const std::string& base) {
    const std::string prefix = base + '.';
    if (!name.starts_with(prefix) || name[prefix.size()] == '0') {
        return 0;
    }
    int number = 0;
    const char* end = name.data() + name.size();
    const auto [rest, error] = std::from_chars(name.data() + prefix.size(), end, number);
    return error == std::errc() && rest == end && number > 0 && number <= FileRotation::MOST
               ? number
               : 0;
}

/// Gives a new file the owner and the mode of another.
void MakeLike(int descriptor, const std::string& path, const struct stat& other) {
    struct stat own {};
    ::fstat(descriptor, &own);
    const bool same = own.st_uid == other.st_uid && own.st_gid == other.st_gid;
    if (!same && ::fchown(descriptor, other.st_uid, other.st_gid) != 0) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Output file(%s) cannot be given the owner that it had: %s", path,
                        Poco::Error::getMessage(errno));
    }
    // After the owner, whose change may take bits away.
    if (::fchmod(descriptor, other.st_mode & kPermissions) != 0) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Output file(%s) cannot be given the mode that it had: %s", path,
                        Poco::Error::getMessage(errno));
    }
}

}  // namespace

FileRotation::FileRotation(std::string path, std::uint64_t limit, int keep)
    : m_path(std::move(path)), m_limit(limit), m_keep(keep) {}

bool FileRotation::IsDue(std::uint64_t size, std::uint64_t more) const {
    return m_limit > 0 && size > 0 && size + more > m_limit;
}

SDK::UniqueDescriptor FileRotation::Rotate(std::string& why) const {
    // Made first: when there is no room for it, nothing has happened yet.
    SDK::UniqueDescriptor fresh = MakeFresh(why);
    if (!fresh) {
        return {};
    }
    if (!Shift(why) || !Rename(m_path + kFresh, m_path, why)) {
        ::unlink((m_path + kFresh).c_str());
        return {};
    }
    RemoveBeyond();
    SDK::LogInformation(GetDataCommLogger(), "Output file(%s) was rotated", m_path);
    return fresh;
}

bool FileRotation::RemoveOldest() const {
    std::set<int> rotated;
    std::string why;
    if (!FindRotated(rotated, why)) {
        SDK::LogError(GetDataCommLogger(), "Output file(%s) gets no space: %s", m_path, why);
        return false;
    }
    if (rotated.empty()) {
        return false;
    }
    const std::string path = Numbered(*rotated.rbegin());
    struct stat status {};
    ::stat(path.c_str(), &status);
    if (::unlink(path.c_str()) != 0) {
        SDK::LogError(GetDataCommLogger(), "Rotated output %s", LastError("file", path));
        return false;
    }
    SDK::LogWarning(GetDataCommLogger(),
                    "Output file(%s) has no space: %s with %lu bytes of alarms was removed", m_path,
                    path, static_cast<unsigned long>(status.st_size));
    return true;
}

SDK::UniqueDescriptor FileRotation::MakeFresh(std::string& why) const {
    struct stat old {};
    if (::lstat(m_path.c_str(), &old) != 0) {
        why = LastError("file", m_path);
        return {};
    }
    if (!S_ISREG(old.st_mode)) {
        why = "it is a symbolic link";
        return {};
    }
    const std::string path = m_path + kFresh;
    ::unlink(path.c_str());  // of an agent that was killed at this point
    SDK::UniqueDescriptor fresh(::open(
        path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!fresh) {
        why = LastError("file", path);
        return {};
    }
    MakeLike(fresh.Get(), m_path, old);
    return fresh;
}

/// Moves each file one number up, as far as there is one without a gap behind it.
bool FileRotation::Shift(std::string& why) const {
    std::set<int> rotated;
    if (!FindRotated(rotated, why)) {
        return false;  // a file that was overlooked would be written over
    }
    int last = 1;
    while (last < m_keep && rotated.count(last) > 0) {
        ++last;
    }
    for (int number = last; number > 1; --number) {
        if (!Rename(Numbered(number - 1), Numbered(number), why)) {
            return false;
        }
    }
    return Rename(m_path, Numbered(1), why);
}

bool FileRotation::Rename(const std::string& from, const std::string& to, std::string& why) const {
    if (std::rename(from.c_str(), to.c_str()) != 0) {
        why = LastError("renaming it to", to);
        return false;
    }
    return true;
}

/// Removes what is more than may be kept, as after this became less.
void FileRotation::RemoveBeyond() const {
    std::set<int> rotated;
    std::string why;
    if (!FindRotated(rotated, why)) {
        SDK::LogError(GetDataCommLogger(),
                      "Output file(%s) may have more rotated files than it should: %s", m_path,
                      why);
        return;
    }
    for (const int number : rotated) {
        if (number > m_keep && ::unlink(Numbered(number).c_str()) != 0) {
            SDK::LogError(GetDataCommLogger(), "Rotated output %s",
                          LastError("file", Numbered(number)));
        }
    }
}

/// @return false when the folder cannot be read to its end
bool FileRotation::FindRotated(std::set<int>& numbers, std::string& why) const {
    const fs::path path(m_path);
    const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::error_code error;
    // Not a range: that goes on with an operator that throws, which would end the agent.
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const int number = NumberOf(entry->path().filename().string(), path.filename().string());
        std::error_code gone;
        if (number > 0 && fs::is_regular_file(entry->symlink_status(gone))) {
            numbers.insert(number);
        }
    }
    if (error) {
        why = Poco::format("folder(%s): %s", folder.string(), error.message());
    }
    return !error;
}

std::string FileRotation::Numbered(int number) const {
    return m_path + '.' + std::to_string(number);
}

}  // namespace Engine
