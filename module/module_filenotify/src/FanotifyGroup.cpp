#include "FanotifyGroup.h"

#include "FileNotifyLog.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/fanotify.h>

#include <array>
#include <cerrno>
#include <string>

namespace FileNotify {

namespace {

constexpr std::size_t kBufferBytes = std::size_t{64} << 10;

// One call reads at most this often, so that a storm cannot keep the caller from its other work.
constexpr int kReadsPerCall = 16;

constexpr std::uint64_t kAccesses =
    FAN_OPEN | FAN_ACCESS | FAN_MODIFY | FAN_CLOSE_WRITE | FAN_CLOSE_NOWRITE | FAN_EVENT_ON_CHILD;

// What befalls directories has no descriptor that it could come with. One mark for both costs those
// who open files less than a second one of inotify's beside it. The price: accesses of directories
// come too, and files that are made are told twice.
constexpr std::uint64_t kChanges =
    FAN_CREATE | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_DELETE_SELF | FAN_ONDIR;

}  // namespace

FanotifyGroup::FanotifyGroup(Naming naming)
    : m_naming(naming), m_buffer(kBufferBytes / sizeof(std::uint64_t)) {}

int FanotifyGroup::Open() {
    // The number of marks is bounded by the directories that are asked for. The queue is not made
    // unlimited: a notifier that stops must not eat the host's memory.
    unsigned int flags = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_MARKS;
    if (m_naming == Naming::BY_DIRECTORY) {
        flags |= FAN_REPORT_DFID_NAME;
    }
    m_group.Reset(::fanotify_init(flags, O_RDONLY | O_CLOEXEC | O_LARGEFILE));
    return m_group ? 0 : errno;
}

std::uint64_t FanotifyGroup::Events() const {
    return m_naming == Naming::BY_DIRECTORY ? kAccesses | kChanges : kAccesses;
}

int FanotifyGroup::Mark(int directory) {
    return ::fanotify_mark(m_group.Get(), FAN_MARK_ADD | FAN_MARK_ONLYDIR, Events(), directory,
                           nullptr) == 0
               ? 0
               : errno;
}

int FanotifyGroup::Unmark(int directory) {
    return ::fanotify_mark(m_group.Get(), FAN_MARK_REMOVE, Events(), directory, nullptr) == 0
               ? 0
               : errno;
}

std::size_t FanotifyGroup::Read(const FanotifyEventReader::Sink& sink) {
    std::size_t events = 0;
    bool more = IsOpen();
    for (int i = 0; more && i < kReadsPerCall; ++i) {
        events += ReadOnce(sink, more);
    }
    return events;
}

std::size_t FanotifyGroup::ReadOnce(const FanotifyEventReader::Sink& sink, bool& more) {
    const ssize_t got = ::read(m_group.Get(), m_buffer.data(), kBufferBytes);
    more = got > 0 || (got < 0 && errno == EINTR);
    if (got <= 0) {
        return 0;
    }
    std::size_t events = 0;
    const bool good =
        FanotifyEventReader::Read(reinterpret_cast<const char*>(m_buffer.data()),
                                  static_cast<std::size_t>(got), [&](const FanotifyEvent& event) {
                                      ++events;
                                      FanotifyEvent resolved = event;
                                      ResolveAndClose(resolved, sink);
                                  });
    if (!good) {
        SDK::LogError(Logger(), "File events from the kernel cannot be understood, %lu were.",
                      static_cast<unsigned long>(events));
    }
    return events;
}

void FanotifyGroup::ResolveAndClose(FanotifyEvent& event, const FanotifyEventReader::Sink& sink) {
    if (event.m_descriptor < 0) {
        sink(event);
        return;
    }
    const SDK::UniqueDescriptor file(event.m_descriptor);
    event.m_descriptor = -1;
    const std::string link = "/proc/self/fd/" + std::to_string(file.Get());
    std::array<char, PATH_MAX> path{};
    const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
    const std::string_view text(path.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::size_t slash = text.rfind('/');
    if (slash != std::string_view::npos) {
        event.m_directory = text.substr(0, slash == 0 ? 1 : slash);
        event.m_name = text.substr(slash + 1);
    }
    sink(event);
}

}  // namespace FileNotify
