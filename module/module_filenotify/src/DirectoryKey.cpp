#include "DirectoryKey.h"

#include <fcntl.h>
#include <sys/vfs.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace FileNotify {

namespace {

// linux/fcntl.h since 6.5: a handle that only identifies is good enough, where there is no other.
constexpr int kHandleFid = 0x200;

constexpr std::size_t kHandleHead = offsetof(file_handle, f_handle);

/// Room for the largest handle, aligned as the kernel's structure.
struct HandleBuffer {
    alignas(file_handle) std::array<char, kHandleHead + MAX_HANDLE_SZ> m_bytes{};

    file_handle* Get() { return reinterpret_cast<file_handle*>(m_bytes.data()); }
    std::size_t Size() { return kHandleHead + Get()->handle_bytes; }
};

bool ReadHandle(int directory, HandleBuffer& handle, int flags) {
    handle.Get()->handle_bytes = MAX_HANDLE_SZ;
    int mountId = 0;
    return ::name_to_handle_at(directory, "", handle.Get(), &mountId, AT_EMPTY_PATH | flags) == 0;
}

}  // namespace

DirectoryKey ReadDirectoryKey(int directory) {
    struct statfs fileSystem {};
    HandleBuffer handle;
    if (::fstatfs(directory, &fileSystem) != 0 ||
        (!ReadHandle(directory, handle, 0) && !ReadHandle(directory, handle, kHandleFid))) {
        return {};
    }
    DirectoryKey key(sizeof(fileSystem.f_fsid) + handle.Size(), '\0');
    std::memcpy(key.data(), &fileSystem.f_fsid, sizeof(fileSystem.f_fsid));
    std::memcpy(key.data() + sizeof(fileSystem.f_fsid), handle.m_bytes.data(), handle.Size());
    return key;
}

SDK::UniqueDescriptor OpenByKey(int mount, const DirectoryKey& key) {
    constexpr std::size_t kFileSystemId = sizeof(fsid_t);
    HandleBuffer handle;
    if (key.size() < kFileSystemId + kHandleHead ||
        key.size() > kFileSystemId + handle.m_bytes.size()) {
        errno = EINVAL;
        return SDK::UniqueDescriptor();
    }
    std::memcpy(handle.m_bytes.data(), key.data() + kFileSystemId, key.size() - kFileSystemId);
    return SDK::UniqueDescriptor(
        ::open_by_handle_at(mount, handle.Get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace FileNotify
