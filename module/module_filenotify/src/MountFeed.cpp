#include "MountFeed.h"

#include "FileNotifyLog.h"

#include <Poco/Error.h>

#include <fcntl.h>
#include <poll.h>

#include <cerrno>

namespace FileNotify {

void MountFeed::Open() {
    m_mounts.Reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    if (!m_mounts) {
        SDK::LogWarning(Logger(),
                        "Mounts cannot be followed: %s. What is mounted over a watched directory "
                        "is not noticed.",
                        Poco::Error::getMessage(errno));
    }
}

bool MountFeed::Changed() {
    // Asked for its change alone: the file itself can always be read.
    pollfd mounts{m_mounts.Get(), POLLPRI, 0};
    return ::poll(&mounts, 1, 0) > 0 && (mounts.revents & POLLPRI) != 0;
}

}  // namespace FileNotify
