#include "Recording.h"

#include "AgentLog.h"
#include "RecordingText.h"
#include "sdk/FileUtils.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Environment.h>
#include <Poco/Exception.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace Agent {

namespace {

constexpr std::int64_t kUsPerS = 1000000;
constexpr std::int64_t kNsPerUs = 1000;

// Kept free, so that a recording that is full can say so.
constexpr std::uint64_t kRoomForTheEnd = 256;

// Held back at the most until it is written.
constexpr std::size_t kBufferBytes = std::size_t{1} << 20;

// As the module reads it, and as much of it.
constexpr const char* kShellsFile = "/etc/shells";
constexpr std::size_t kShellsFileBytes = 4096;

constexpr const char* kTooLong = "too_long";
constexpr const char* kNotWritten = "not_written";
constexpr const char* kBehind = "behind";
constexpr const char* kAfterTheEnd = "after_the_end";

/// The clock goes on while the machine sleeps and is never set.
std::int64_t BootUs() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec * kUsPerS + now.tv_nsec / kNsPerUs;
}

std::string HostName() {
    try {
        return Poco::Environment::nodeName();
    } catch (const Poco::Exception&) {
        return "";
    }
}

RecordingHeader MakeHeader() {
    RecordingHeader header;
    header.m_host = HostName();
    header.m_agent = VMESCAPE_VERSION;
    header.m_started =
        Poco::DateTimeFormatter::format(Poco::Timestamp(), Poco::DateTimeFormat::ISO8601_FORMAT);
    bool truncated = false;
    header.m_hasShells =
        SDK::FileUtils::ReadFile(kShellsFile, truncated, header.m_shells, kShellsFileBytes) == 0;
    return header;
}

}  // namespace

Recording::Recording(std::unique_ptr<RecordingFile> file)
    : m_path(file->Path()),
      m_startedUs(Poco::Timestamp().epochMicroseconds()),
      m_bootUs(BootUs()),
      m_file(std::move(file)),
      m_lines(RecordingText::Write(MakeHeader()) + '\n') {
    m_books.m_name = "recording";
    m_books.m_by = m_path;
}

void Recording::Add(RecordedEvent event) {
    std::vector<RecordedEvent> events;
    events.push_back(std::move(event));
    Add(std::move(events));
}

void Recording::Add(std::vector<RecordedEvent> events) {
    const std::int64_t now = Now();
    for (RecordedEvent& event : events) {
        event.m_at = now;
        Append(event);
    }
}

void Recording::Append(const RecordedEvent& event) {
    if (m_lines.size() > kBufferBytes) {
        Flush();
    }
    const std::string line = RecordingText::Write(event);
    const bool tooLong = line.size() > RecordingText::MAX_LINE_BYTES;
    if (!Ended() && !m_file->HasRoom(m_lines.size() + line.size() + 1 + kRoomForTheEnd)) {
        SDK::LogWarning(Logger(), "Recording(%s) has reached its limit and ends", m_path);
        End("full");
    }
    const SDK::LockGuard lock(m_mutex);
    ++m_books.m_seen;
    if (Ended()) {
        ++m_books.m_filtered[kAfterTheEnd];
    } else if (tooLong) {
        ++m_books.m_lost[kTooLong];
    } else {
        ++m_kinds[RecordingText::Name(event.m_kind)];
        m_lines += line + '\n';
        ++m_books.m_waiting;
    }
}

void Recording::Flush() {
    if (Ended() || m_lines.empty()) {
        return;
    }
    const std::string wrong = m_file->Write(m_lines);
    m_lines.clear();
    {
        const SDK::LockGuard lock(m_mutex);
        (wrong.empty() ? m_books.m_delivered : m_books.m_lost[kNotWritten]) += m_books.m_waiting;
        m_books.m_waiting = 0;
        for (const auto& [kind, count] : std::exchange(m_kinds, {})) {
            m_books.m_kinds[kind] += wrong.empty() ? count : 0;
        }
    }
    if (!wrong.empty()) {
        // There may be room for as little as that, now that so much was taken back. Without it, it
        // would seem that the agent was killed.
        WriteEnd("failed");
        Close("Recording(" + m_path + ") cannot be written: " + wrong);
    }
}

void Recording::CountLost(std::uint64_t events) {
    const SDK::LockGuard lock(m_mutex);
    m_books.m_seen += events;
    m_books.m_lost[kBehind] += events;
}

void Recording::End(const std::string& reason) {
    Flush();
    if (Ended()) {
        return;
    }
    const std::string wrong = WriteEnd(reason);
    Close(wrong.empty() ? "" : "Recording(" + m_path + ") cannot be written: " + wrong);
}

/// @return what is wrong, or ""
std::string Recording::WriteEnd(const std::string& reason) {
    RecordedEvent end;
    end.m_kind = RecordedEvent::Kind::END;
    end.m_at = Now();
    end.m_reason = reason;
    return m_file->IsTorn() ? "" : m_file->Write(RecordingText::Write(end) + '\n');
}

void Recording::Close(const std::string& trouble) {
    m_file.reset();
    SDK::Ledger books;
    {
        const SDK::LockGuard lock(m_mutex);
        m_books.m_trouble = trouble;
        books = m_books;
    }
    if (!trouble.empty()) {
        SDK::LogError(Logger(), "%s. The recording ends.", trouble);
    }
    LogNotice("Recording(%s) ends: %lu events written, %lu lost", m_path,
              static_cast<unsigned long>(books.m_delivered),
              static_cast<unsigned long>(books.Lost()));
}

std::int64_t Recording::Now() const { return m_startedUs + BootUs() - m_bootUs; }

SDK::Ledger Recording::GetLedger() const {
    const SDK::LockGuard lock(m_mutex);
    return m_books;
}

}  // namespace Agent
