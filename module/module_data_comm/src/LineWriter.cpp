#include "LineWriter.h"

#include <Poco/Error.h>

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Engine {

namespace {

// How long one wait for a full pipe lasts before the deadline is looked at again.
constexpr int kPollMs = 100;

}  // namespace

LineWriter::LineWriter(int descriptor, std::string name)
    : AlarmWriter(std::move(name)), m_descriptor(descriptor) {}

std::size_t LineWriter::Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) {
    std::size_t done = 0;
    while (done < alarms.size() && WriteLine(alarms[done].m_text, why)) {
        ++done;
    }
    return done;
}

bool LineWriter::WriteLine(const std::string& line, std::string& why) {
    if (WriteAll((m_cut ? "\n" : "") + line + '\n')) {
        return true;
    }
    why = Poco::Error::getMessage(errno);
    return false;
}

void LineWriter::WriteTo(int descriptor) {
    m_descriptor = descriptor;
    m_cut = false;
}

bool LineWriter::IsTerminal() const { return ::isatty(m_descriptor) == 1; }

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

bool LineWriter::WriteAll(const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        if (!WaitWritable()) {
            return false;
        }
        // A pipe that is writable takes PIPE_BUF bytes without blocking (pipe(7)).
        const std::size_t piece = std::min<std::size_t>(text.size() - done, PIPE_BUF);
        const ssize_t written = ::write(m_descriptor, text.data() + done, piece);
        if (written > 0) {
            done += static_cast<std::size_t>(written);
            m_cut = text[done - 1] != '\n';
        } else if (errno != EINTR && errno != EAGAIN) {
            return false;
        }
    }
    return true;
}

}  // namespace Engine
