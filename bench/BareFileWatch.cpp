// BareFileWatch ROOT DIRECTORIES: the least that a watcher of files can do with fanotify(7) and
// descriptors: mark, read, readlink, close. Prints "ready" when all is marked, and at its end the
// number of events.

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

volatile sig_atomic_t g_stop = 0;

void Stop(int /*signal*/) { g_stop = 1; }

/// The events of one buffer.
long Handle(const char* buffer, ssize_t size) {
    long events = 0;
    const auto* event = reinterpret_cast<const fanotify_event_metadata*>(buffer);
    for (; FAN_EVENT_OK(event, size); event = FAN_EVENT_NEXT(event, size)) {
        ++events;
        if (event->fd >= 0) {
            std::array<char, PATH_MAX> path{};
            const std::string link = "/proc/self/fd/" + std::to_string(event->fd);
            events += ::readlink(link.c_str(), path.data(), path.size()) > 0 ? 0 : 1;
            ::close(event->fd);
        }
    }
    return events;
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fprintf(stderr, "usage: BareFileWatch ROOT DIRECTORIES\n");
        return 2;
    }
    // All events are to be handled, however far the reader falls behind.
    const int group = ::fanotify_init(
        FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_UNLIMITED_MARKS | FAN_UNLIMITED_QUEUE, O_RDONLY);
    for (long i = 0; i < std::atol(arguments[2]); ++i) {
        const std::string directory = std::string(arguments[1]) + "/d" + std::to_string(i);
        if (::fanotify_mark(group, FAN_MARK_ADD,
                            FAN_OPEN | FAN_ACCESS | FAN_MODIFY | FAN_CLOSE | FAN_EVENT_ON_CHILD,
                            AT_FDCWD, directory.c_str()) != 0) {
            std::perror(directory.c_str());
            return 1;
        }
    }
    struct sigaction action {};
    action.sa_handler = Stop;
    ::sigaction(SIGTERM, &action, nullptr);
    std::puts("ready");
    std::fflush(stdout);
    alignas(8) static std::array<char, 65536> buffer;
    long events = 0;
    while (g_stop == 0) {
        const ssize_t size = ::read(group, buffer.data(), buffer.size());
        events += size > 0 ? Handle(buffer.data(), size) : 0;
    }
    std::printf("%ld\n", events);
    return 0;
}
