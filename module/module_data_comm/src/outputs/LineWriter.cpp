#include "outputs/LineWriter.h"

#include <Poco/Error.h>

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Engine {

namespace {

// How long one wait for a full pipe lasts before the clock is looked at again.
constexpr int kPollMs = 100;

}  // namespace

LineWriter::LineWriter(int descriptor, std::string name, std::chrono::milliseconds patience)
    : AlarmWriter(std::move(name)), m_descriptor(descriptor), m_patience(patience) {}

std::size_t LineWriter::Write(const std::vector<OutgoingAlarm>& alarms, std::string& why) {
    std::size_t done = 0;
    while (done < alarms.size() && WriteLine(alarms[done].m_text, why)) {
        ++done;
    }
    return done;
}

bool LineWriter::WriteLine(const std::string& line, std::string& why) {
    // While it stands still it is given the same line again.
    if (!m_standsStill) {
        m_text = (m_cut ? "\n" : "") + line + '\n';
        m_done = 0;
    }
    const int error = WriteText();
    m_standsStill = error == EAGAIN;
    if (error != 0) {
        why = m_standsStill ? "nobody reads" : Poco::Error::getMessage(error);
    }
    return error == 0;
}

void LineWriter::WriteTo(int descriptor) {
    m_descriptor = descriptor;
    m_cut = false;
    m_standsStill = false;
}

bool LineWriter::IsTerminal() const { return ::isatty(m_descriptor) == 1; }

/// @return 0, or the error number: EAGAIN when nobody reads
int LineWriter::WriteText() {
    m_patience.Begin(std::chrono::steady_clock::now());
    while (m_done < m_text.size()) {
        const int error = WritePiece();
        if (error != 0 && error != EAGAIN && error != EINTR) {
            return error;
        }
        if (error != 0 && DeadlinePassed()) {
            return ETIMEDOUT;
        }
        if (error != 0 && m_patience.HasEnded(m_done, std::chrono::steady_clock::now())) {
            return EAGAIN;
        }
    }
    return 0;
}

/// Writes what surely has room, and waits a moment where there is none.
/// @return 0, or the error number: EAGAIN when there was no room
int LineWriter::WritePiece() {
    pollfd descriptor{m_descriptor, POLLOUT, 0};
    if (::poll(&descriptor, 1, kPollMs) <= 0) {
        return EAGAIN;
    }
    // A pipe that is writable takes PIPE_BUF bytes without blocking (pipe(7)).
    const std::size_t piece = std::min<std::size_t>(m_text.size() - m_done, PIPE_BUF);
    const ssize_t written = ::write(m_descriptor, m_text.data() + m_done, piece);
    if (written <= 0) {
        return written < 0 ? errno : EAGAIN;
    }
    m_done += static_cast<std::size_t>(written);
    m_cut = m_text[m_done - 1] != '\n';
    return 0;
}

}  // namespace Engine
