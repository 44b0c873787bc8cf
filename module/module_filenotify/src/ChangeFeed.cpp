#include "ChangeFeed.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace FileNotify {

namespace {

// Deletions need no event of their own: they end the deleted directory's watch.
constexpr std::uint32_t kChanges = IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;

constexpr std::size_t kBufferBytes = std::size_t{16} << 10;

std::size_t HandOver(std::string_view bytes, const ChangeFeed::Sink& sink) {
    std::size_t changes = 0;
    while (bytes.size() >= sizeof(inotify_event)) {
        inotify_event event{};
        std::memcpy(&event, bytes.data(), sizeof(event));
        const std::string_view padded = bytes.substr(sizeof(event), event.len);
        sink({event.wd, event.mask, padded.substr(0, padded.find('\0'))});
        ++changes;
        bytes.remove_prefix(std::min(bytes.size(), sizeof(event) + event.len));
    }
    return changes;
}

}  // namespace

int ChangeFeed::Open() {
    m_feed.Reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    return m_feed ? 0 : errno;
}

int ChangeFeed::Add(int directory) {
    // By its descriptor: its path may lead elsewhere by now.
    const std::string link = "/proc/self/fd/" + std::to_string(directory);
    const int watch = ::inotify_add_watch(m_feed.Get(), link.c_str(), kChanges);
    return watch >= 0 ? watch : -errno;
}

void ChangeFeed::Remove(int watch) { ::inotify_rm_watch(m_feed.Get(), watch); }

std::size_t ChangeFeed::Read(const Sink& sink) {
    alignas(inotify_event) std::array<char, kBufferBytes> buffer{};
    std::size_t changes = 0;
    for (;;) {
        const ssize_t got = ::read(m_feed.Get(), buffer.data(), buffer.size());
        if (got > 0) {
            changes += HandOver({buffer.data(), static_cast<std::size_t>(got)}, sink);
        } else if (got == 0 || errno != EINTR) {
            return changes;
        }
    }
}

}  // namespace FileNotify
