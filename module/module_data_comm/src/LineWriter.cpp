#include "LineWriter.h"

#include "DataCommLog.h"

#include <Poco/Error.h>

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Engine {

namespace {

constexpr mode_t kFileMode = 0640;

// How long one wait for a full pipe lasts before the deadline is looked at again.
constexpr int kPollMs = 100;

/// Not blocking: a named pipe without a reader is refused, and one with a slow reader is waited for
/// where the deadline is looked at.
int OpenToAppend(const std::string& path) {
    return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                  kFileMode);
}

/// Whether the path still leads to the open file.
bool IsSameFile(const std::string& path, int descriptor) {
    struct stat named {};
    struct stat open {};
    return ::stat(path.c_str(), &named) == 0 && ::fstat(descriptor, &open) == 0 &&
           named.st_ino == open.st_ino && named.st_dev == open.st_dev;
}

}  // namespace

LineWriter::LineWriter(int descriptor, std::string name)
    : AlarmWriter(std::move(name)), m_descriptor(descriptor) {}

LineWriter::~LineWriter() {
    if (m_isFile) {
        ::close(m_descriptor);
    }
}

std::unique_ptr<LineWriter> LineWriter::OpenFile(const std::string& path) {
    const int descriptor = OpenToAppend(path);
    if (descriptor < 0) {
        SDK::LogError(GetDataCommLogger(), "Output file(%s) cannot be opened: %s", path,
                      Poco::Error::getMessage(errno));
        return nullptr;
    }
    auto writer = std::make_unique<LineWriter>(descriptor, path);
    writer->m_isFile = true;
    return writer;
}

std::size_t LineWriter::Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) {
    std::size_t done = 0;
    while (done < alarms.size() && WriteLine(alarms[done].m_text, why)) {
        ++done;
    }
    return done;
}

bool LineWriter::WriteLine(const std::string& line, std::string& why) {
    FollowRename();
    const off_t before = m_isFile ? ::lseek(m_descriptor, 0, SEEK_END) : -1;
    if (WriteAll(line + '\n')) {
        return true;
    }
    why = Poco::Error::getMessage(errno);
    if (before >= 0) {
        // Fails on devices, which keep nothing anyway.
        [[maybe_unused]] const int result = ::ftruncate(m_descriptor, before);
    }
    return false;
}

bool LineWriter::IsTerminal() const { return ::isatty(m_descriptor) == 1; }

void LineWriter::FollowRename() {
    if (!m_isFile || IsSameFile(Name(), m_descriptor)) {
        return;
    }
    const int descriptor = OpenToAppend(Name());
    if (descriptor < 0) {
        // The old file still takes lines, and the next line tries again.
        return;
    }
    ::close(std::exchange(m_descriptor, descriptor));
    SDK::LogInformation(GetDataCommLogger(), "Output file(%s) was moved away, it is made anew",
                        Name());
}

bool LineWriter::WaitWritable() const {
    pollfd descriptor{m_descriptor, POLLOUT, 0};
    while (::poll(&descriptor, 1, kPollMs) <= 0) {
        if (DeadlinePassed()) {
            errno = ETIMEDOUT;
            return false;
        }
    }
    return true;
}

bool LineWriter::WriteAll(const std::string& text) const {
    for (std::size_t done = 0; done < text.size();) {
        if (!WaitWritable()) {
            return false;
        }
        // A pipe that is writable takes PIPE_BUF bytes without blocking (pipe(7)).
        const std::size_t piece =
            m_isFile ? text.size() - done : std::min<std::size_t>(text.size() - done, PIPE_BUF);
        const ssize_t written = ::write(m_descriptor, text.data() + done, piece);
        if (written > 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno != EINTR && errno != EAGAIN) {
            return false;
        }
    }
    return true;
}

}  // namespace Engine
