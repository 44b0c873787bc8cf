#include "RecordingReader.h"

#include "RecordingText.h"
#include "sdk/StrUtils.h"

#include <Poco/Error.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Replay {

namespace {

using Agent::RecordedEvent;
using Agent::RecordingText;

constexpr std::size_t kChunk = 65536;

// No host is silent for longer, and a replay would count the days for hours. Who writes by hand may
// have taken another unit.
constexpr std::int64_t kLongestStepDays = 366;
constexpr std::int64_t kUsPerDay = 86400LL * 1000000;

}  // namespace

RecordingReader::Result RecordingReader::Open(const std::string& path,
                                              Agent::RecordingHeader& header) {
    *this = RecordingReader();
    m_path = path;
    m_file.Reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status {};
    if (!m_file || ::fstat(m_file.Get(), &status) != 0) {
        return Fail(Result::BAD, Poco::Error::getMessage(errno));
    }
    m_size = status.st_size > 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
    std::string line;
    const Result result = Line(line);
    if (result == Result::BAD) {
        return result;
    }
    if (result != Result::EVENT) {
        return Fail(Result::BAD, "expected the header of a recording, found an empty file");
    }
    const std::string wrong = RecordingText::Read(line, header);
    return wrong.empty() ? Result::EVENT : Fail(Result::BAD, "this is no recording: " + wrong);
}

RecordingReader::Result RecordingReader::Next(RecordedEvent& event) {
    std::string line;
    if (const Result result = Line(line); result != Result::EVENT) {
        return result;
    }
    if (m_ended) {
        return Fail(Result::BAD, "expected nothing behind the end of the recording");
    }
    if (const std::string wrong = RecordingText::Read(line, event); !wrong.empty()) {
        return m_torn ? Fail(Result::CUT, "the line is torn, the agent was ended while it wrote it")
                      : Fail(Result::BAD, wrong);
    }
    return CheckOrder(event);
}

RecordingReader::Result RecordingReader::CheckOrder(const RecordedEvent& event) {
    const bool snapshot = event.m_kind == RecordedEvent::Kind::SNAPSHOT;
    if (event.m_at < m_lastUs) {
        return Fail(Result::BAD, "/at: expected no time before that of the line above");
    }
    if (m_hasSnapshot && event.m_at - m_lastUs > kLongestStepDays * kUsPerDay) {
        return Fail(Result::BAD, "/at: expected microseconds since the epoch, at most " +
                                     std::to_string(kLongestStepDays) +
                                     " days after the line above, found " +
                                     std::to_string((event.m_at - m_lastUs) / kUsPerDay) + " days");
    }
    m_lastUs = event.m_at;
    if (!snapshot && !m_hasSnapshot) {
        return Fail(Result::BAD, "/event: expected the snapshot that a recording begins with");
    }
    if (m_left > 0 && (!snapshot || event.m_left != m_left - 1)) {
        return Fail(Result::BAD,
                    "expected a line of the snapshot with " + std::to_string(m_left - 1) + " left");
    }
    m_left = snapshot ? event.m_left : 0;
    m_hasSnapshot = true;
    m_ended = event.m_kind == RecordedEvent::Kind::END;
    return Result::EVENT;
}

/// @return EVENT when there is a line
RecordingReader::Result RecordingReader::Line(std::string& line) {
    std::size_t end = m_buffer.find('\n', m_taken);
    while (end == std::string::npos && m_buffer.size() - m_taken <= RecordingText::MAX_LINE_BYTES) {
        const std::size_t looked = m_buffer.size() - m_taken;
        if (const Result result = Fill(); result != Result::EVENT) {
            return result;
        }
        if (m_torn) {
            break;
        }
        end = m_buffer.find('\n', m_taken + looked);
    }
    ++m_line;
    if (end == std::string::npos && !m_torn) {
        return Fail(Result::BAD, "expected a line of at most " +
                                     std::to_string(RecordingText::MAX_LINE_BYTES) + " bytes");
    }
    line = m_buffer.substr(m_taken, end == std::string::npos ? end : end - m_taken);
    m_taken = end == std::string::npos ? m_buffer.size() : end + 1;
    return Result::EVENT;
}

/// Reads more into the buffer. @return EVENT when there is something in it that is not taken
RecordingReader::Result RecordingReader::Fill() {
    m_buffer.erase(0, m_taken);
    m_taken = 0;
    const std::size_t had = m_buffer.size();
    m_buffer.resize(had + kChunk);
    ssize_t got = 0;
    do {
        got = ::read(m_file.Get(), m_buffer.data() + had, kChunk);
    } while (got < 0 && errno == EINTR);
    m_buffer.resize(had + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    m_read += static_cast<std::uint64_t>(std::max<ssize_t>(got, 0));
    if (got < 0) {
        return Fail(Result::BAD, Poco::Error::getMessage(errno));
    }
    m_torn = got == 0 && had > 0;
    if (got > 0 || m_torn) {
        return Result::EVENT;
    }
    return m_ended ? Result::ENDED
                   : Fail(Result::CUT,
                          "there is no end, the agent was ended or could not write any more");
}

RecordingReader::Result RecordingReader::Fail(Result result, const std::string& text) {
    m_problem =
        SDK::StrUtils::EscapeForTerminal(m_path + ':' + std::to_string(m_line) + ": " + text);
    return result;
}

double RecordingReader::Progress() const {
    return m_size == 0 ? 0
                       : static_cast<double>(m_read - m_buffer.size() + m_taken) /
                             static_cast<double>(m_size);
}

}  // namespace Replay
