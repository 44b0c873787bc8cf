#include "LogChannel.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Agent {

namespace {

// How long a reader may take to make room, once: a reader that is merely busy loses nothing, and a
// task that logs is not held up noticeably.
constexpr int kPatienceMs = 20;

bool IsWritable(int descriptor, int patienceMs) {
    pollfd waited{descriptor, POLLOUT, 0};
    return ::poll(&waited, 1, patienceMs) > 0;
}

}  // namespace

void LogChannel::log(const Poco::Message& message) {
    const SDK::LockGuard lock(m_mutex);
    if (m_lost > 0) {
        if (!WriteLine("(" + std::to_string(m_lost) + " lines were lost)", 0)) {
            ++m_lost;
            return;
        }
        m_lost = 0;
    }
    m_lost += WriteLine(message.getText(), kPatienceMs) ? 0 : 1;
}

bool LogChannel::WriteLine(const std::string& text, int patienceMs) {
    const std::string line = (m_torn ? "\n" : "") + text + '\n';
    for (std::size_t done = 0; done < line.size();) {
        if (!IsWritable(m_descriptor, patienceMs)) {
            m_torn = m_torn || done > 0;
            return false;
        }
        // A pipe that is writable takes PIPE_BUF bytes without blocking (pipe(7)).
        const std::size_t piece = std::min<std::size_t>(line.size() - done, PIPE_BUF);
        const ssize_t written = ::write(m_descriptor, line.data() + done, piece);
        if (written > 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno != EINTR && errno != EAGAIN) {
            m_torn = m_torn || done > 0;
            return false;
        }
    }
    m_torn = false;
    return true;
}

}  // namespace Agent
