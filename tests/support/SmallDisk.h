#pragma once

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <string>

namespace TestSupport {

/// A file system of a few kilobytes, which is soon full. It is mounted for this process, and for
/// those that it starts from then on, alone. Needs root.
class SmallDisk {
public:
    /// @param kilobytes  its size
    explicit SmallDisk(int kilobytes) {
        const std::string size = "size=" + std::to_string(kilobytes) + 'k';
        EXPECT_EQ(::unshare(CLONE_NEWNS), 0);
        EXPECT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        EXPECT_EQ(::mount("none", m_folder.Path().c_str(), "tmpfs", 0, size.c_str()), 0);
    }
    ~SmallDisk() { ::umount2(m_folder.Path().c_str(), MNT_DETACH); }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    const std::string& Path() const { return m_folder.Path(); }
    std::string operator/(const std::string& name) const { return m_folder / name; }

    /// Takes all the room that is left.
    void Fill() const {
        const int filler =
            ::open((m_folder / "filler").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const std::array<char, 4096> zeros{};
        while (::write(filler, zeros.data(), zeros.size()) > 0) {
        }
        ::close(filler);
    }

    /// Gives back the room that Fill took.
    void Empty() const { EXPECT_EQ(::unlink((m_folder / "filler").c_str()), 0); }

    /// Why there can be none here; empty when there can.
    static std::string Missing() { return ::geteuid() == 0 ? "" : "mounting needs root"; }

private:
    TemporaryFolder m_folder;
};

}  // namespace TestSupport
