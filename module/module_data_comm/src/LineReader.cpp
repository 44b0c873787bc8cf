#include "LineReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Engine {

namespace {

constexpr std::size_t kPiece = 64 << 10;

}  // namespace

LineReader::LineReader(const std::string& path, std::uint64_t offset)
    : m_file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)), m_offset(offset) {
    if (!m_file) {
        m_error = errno;
    }
}

bool LineReader::Next(std::string& line) {
    std::size_t searched = m_begin;
    std::size_t end = m_ahead.find('\n', searched);
    while (end == std::string::npos) {
        searched = m_ahead.size() - m_begin;
        if (!ReadAhead()) {
            return false;
        }
        end = m_ahead.find('\n', searched);
    }
    line.assign(m_ahead, m_begin, end - m_begin);
    m_begin = end + 1;
    m_offset += line.size() + 1;
    return true;
}

/// Reads a piece more, behind what no line was made of yet. @return false when there is none
bool LineReader::ReadAhead() {
    m_ahead.erase(0, m_begin);
    m_begin = 0;
    const std::size_t had = m_ahead.size();
    ssize_t count = -1;
    if (m_file) {
        m_ahead.resize(had + kPiece);
        do {
            count = ::pread(m_file.Get(), m_ahead.data() + had, kPiece,
                            static_cast<off_t>(m_offset + had));
        } while (count < 0 && errno == EINTR);
        m_error = count < 0 ? errno : 0;
    }
    m_ahead.resize(had + (count > 0 ? static_cast<std::size_t>(count) : 0));
    return count > 0;
}

}  // namespace Engine
