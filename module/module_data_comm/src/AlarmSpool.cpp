#include "AlarmSpool.h"

#include "DataCommLog.h"
#include "LineReader.h"

#include <Poco/Error.h>
#include <Poco/Format.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <utility>

namespace Engine {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kFileMode = 0600;

// A segment is begun anew when it has this part of the limit, so that room comes back while alarms
// arrive.
constexpr std::uint64_t kSegments = 8;

// How often, and with what pauses, a lock is tried that somebody has.
constexpr int kLockLooks = 10;
constexpr useconds_t kLockPauseUs = 10000;

constexpr const char* kEnding = ".jsonl";

/// What lies between the name and the ending of a segment; false when that is no number.
bool NumberOf(const std::string& file, const std::string& name, std::uint64_t& number) {
    const std::string prefix = name + '.';
    const std::string ending = kEnding;
    if (!file.starts_with(prefix) || !file.ends_with(ending) ||
        file.size() <= prefix.size() + ending.size()) {
        return false;
    }
    const char* begin = file.data() + prefix.size();
    const char* end = file.data() + file.size() - ending.size();
    const auto [rest, error] = std::from_chars(begin, end, number);
    return error == std::errc() && rest == end;
}

/// What lies before the number of a segment; empty when this is no name of one.
std::string SpoolOf(const std::string& file, std::uint64_t& number) {
    const std::string ending = kEnding;
    if (!file.ends_with(ending)) {
        return "";
    }
    const std::size_t dot = file.substr(0, file.size() - ending.size()).rfind('.');
    const std::string name = file.substr(0, dot == std::string::npos ? 0 : dot);
    return NumberOf(file, name, number) ? name : "";
}

bool IsOpenSomewhere(const std::string& folder, const std::string& name) {
    const std::string path = folder + '/' + name + ".lock";
    const SDK::UniqueDescriptor lock(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    return lock && ::flock(lock.Get(), LOCK_SH | LOCK_NB) != 0;
}

std::string LastError(const std::string& what, const std::string& path) {
    return Poco::format("%s(%s): %s", what, path, Poco::Error::getMessage(errno));
}

bool WriteWhole(int descriptor, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(descriptor, text.data() + done, text.size() - done);
        if (written > 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

/// A document as one line with its end.
std::string LineOf(const std::string& document) {
    std::string line = document;
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line + '\n';
}

}  // namespace

std::unique_ptr<AlarmSpool> AlarmSpool::Open(const std::string& folder, const std::string& name,
                                             std::uint64_t limit, std::string& why) {
    std::error_code error;
    if (fs::create_directories(folder, error)) {
        ::chmod(folder.c_str(), S_IRWXU);
    }
    if (error) {
        why = Poco::format("folder(%s): %s", folder, error.message());
        return nullptr;
    }
    std::unique_ptr<AlarmSpool> spool(new AlarmSpool(folder, name, limit));
    if (!spool->Lock(why) || !spool->FindSegments(why) || !spool->ReadPosition(why)) {
        return nullptr;
    }
    spool->CountDocuments();
    return spool;
}

std::map<std::string, std::vector<std::string>> AlarmSpool::FindForgotten(const std::string& folder,
                                                                          std::string& why) {
    std::map<std::string, std::map<std::uint64_t, std::string>> found;
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        std::uint64_t number = 0;
        const std::string name = SpoolOf(entry->path().filename().string(), number);
        std::error_code unknown;
        if (!name.empty() && entry->file_size(unknown) > 0) {
            found[name][number] = entry->path().string();
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        why = Poco::format("folder(%s): %s", folder, error.message());
    }
    std::map<std::string, std::vector<std::string>> forgotten;
    for (const auto& [name, segments] : found) {
        if (!IsOpenSomewhere(folder, name)) {
            for (const auto& [number, path] : segments) {
                forgotten[name].push_back(path);
            }
        }
    }
    return forgotten;
}

AlarmSpool::AlarmSpool(std::string folder, std::string name, std::uint64_t limit)
    : m_folder(std::move(folder)), m_name(std::move(name)), m_limit(limit) {}

bool AlarmSpool::Lock(std::string& why) {
    const std::string path = m_folder + '/' + m_name + ".lock";
    m_lock.Reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode));
    if (!m_lock) {
        why = LastError("file", path);
        return false;
    }
    // One that only looks for what is left behind holds it for a moment.
    for (int looks = 1; ::flock(m_lock.Get(), LOCK_EX | LOCK_NB) != 0; ++looks) {
        if (looks == kLockLooks) {
            why = Poco::format("file(%s): another agent uses this spool", path);
            return false;
        }
        ::usleep(kLockPauseUs);
    }
    return true;
}

/// All of them: a number that was overlooked would be given to another.
bool AlarmSpool::FindSegments(std::string& why) {
    std::error_code error;
    fs::directory_iterator entry(m_folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        Segment segment;
        if (NumberOf(entry->path().filename().string(), m_name, segment.m_number)) {
            std::error_code unknown;
            const std::uintmax_t size = entry->file_size(unknown);
            segment.m_bytes = unknown ? 0 : size;
            m_segments.push_back(segment);
        }
    }
    if (error) {
        why = Poco::format("folder(%s): %s", m_folder, error.message());
        return false;
    }
    std::sort(m_segments.begin(), m_segments.end(),
              [](const Segment& a, const Segment& b) { return a.m_number < b.m_number; });
    m_lastNumber = m_segments.empty() ? 0 : m_segments.back().m_number;
    return true;
}

bool AlarmSpool::ReadPosition(std::string& why) {
    const std::string path = m_folder + '/' + m_name + ".position";
    LineReader file(path, 0);
    std::string line;
    if (!file.Next(line) && file.Error() != 0 && file.Error() != ENOENT) {
        why = Poco::format("file(%s): %s", path, Poco::Error::getMessage(file.Error()));
        return false;
    }
    std::istringstream fields(line);
    std::uint64_t number = 0;
    std::uint64_t offset = 0;
    if (fields >> number >> offset) {
        m_lastNumber = std::max(m_lastNumber, number);
        // One of a segment that is gone says nothing of the others.
        if (!m_segments.empty() && m_segments.front().m_number == number &&
            offset <= m_segments.front().m_bytes) {
            m_offset = offset;
        }
    }
    return true;
}

void AlarmSpool::CountDocuments() {
    std::uint64_t from = m_offset;
    for (Segment& segment : m_segments) {
        if (const int error = CountIn(segment, std::exchange(from, 0)); error != 0) {
            m_tailIsTorn = true;  // for all that is known
            SDK::LogError(GetDataCommLogger(),
                          "Spool file(%s) cannot be read: %s. Its alarms wait until it can.",
                          PathOf(segment), Poco::Error::getMessage(error));
        }
    }
    RemoveFinished();
}

/// Counts the documents of a segment that was found. @return 0, or the error number
int AlarmSpool::CountIn(Segment& segment, std::uint64_t offset) {
    LineReader file(PathOf(segment), offset);
    std::size_t documents = 0;
    for (std::string line; file.Next(line);) {
        ++documents;
    }
    if (file.Error() != 0) {
        return file.Error();
    }
    segment.m_documents = documents;
    segment.m_bytes = file.Offset();
    segment.m_counted = true;
    if (file.Rest() > 0) {
        // Its writer was killed. It stays there, and nothing is put behind it.
        m_tailIsTorn = true;
        SDK::LogWarning(GetDataCommLogger(),
                        "Spool file(%s) ends in the middle of an alarm, %lu bytes", PathOf(segment),
                        static_cast<unsigned long>(file.Rest()));
    }
    return 0;
}

std::size_t AlarmSpool::Append(const std::deque<std::string>& documents, std::string& why) {
    std::size_t done = 0;
    for (const std::string& document : documents) {
        if (!AppendText(LineOf(document), why)) {
            break;
        }
        ++done;
    }
    if (done > 0 && ::fdatasync(m_tail.Get()) != 0) {
        SDK::LogWarning(GetDataCommLogger(), "Spool file(%s) may not survive a loss of power: %s",
                        PathOf(m_segments.back()), Poco::Error::getMessage(errno));
    }
    return done;
}

bool AlarmSpool::AppendText(const std::string& text, std::string& why) {
    if (Bytes() + text.size() > m_limit) {
        why = Poco::format("the spool is full(%lu bytes)", static_cast<unsigned long>(m_limit));
        return false;
    }
    if (!OpenTail(why)) {
        return false;
    }
    Segment& tail = m_segments.back();
    if (!WriteWhole(m_tail.Get(), text)) {
        why = LastError("spool file", PathOf(tail));
        // Half a line is taken back.
        m_tailIsTorn = ::ftruncate(m_tail.Get(), static_cast<off_t>(tail.m_bytes)) != 0;
        return false;
    }
    tail.m_bytes += text.size();
    ++tail.m_documents;
    return true;
}

/// Makes sure of a newest segment that takes more.
bool AlarmSpool::OpenTail(std::string& why) {
    if (m_segments.empty() || m_tailIsTorn || m_segments.back().m_bytes >= m_limit / kSegments) {
        ::fdatasync(m_tail.Get());
        m_tail.Reset();
        m_tailIsTorn = false;
        m_segments.push_back({++m_lastNumber, 0, 0, true});
    }
    if (!m_tail) {
        const std::string path = PathOf(m_segments.back());
        m_tail.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW,
                            kFileMode));
        if (!m_tail) {
            why = LastError("spool file", path);
        }
    }
    return static_cast<bool>(m_tail);
}

AlarmSpool::Reading AlarmSpool::Peek(std::size_t most, std::vector<std::string>& documents,
                                     std::string& why) {
    documents.clear();
    int error = 0;
    RemoveFinished();
    while (error == 0 && !m_segments.empty() && !m_segments.front().m_counted) {
        error = CountIn(m_segments.front(), m_offset);
        RemoveFinished();
    }
    if (IsEmpty()) {
        return Reading::DONE;
    }
    error = error == 0 ? ReadFront(most, documents) : error;
    if (!documents.empty()) {
        return Reading::DONE;
    }
    const bool lost = error == 0 || error == ENOENT;
    const Segment& front = m_segments.front();
    why = Poco::format("spool file(%s) %s", PathOf(front),
                       !lost             ? "cannot be read: " + Poco::Error::getMessage(error)
                       : front.m_counted ? "does not hold what was put there"
                                         : "went before its alarms could be counted");
    return lost ? Reading::LOST : Reading::FAILED;
}

/// Reads documents of the oldest segment, and moves the offset behind what has arrived. Where the
/// file cannot be read it stays, and the next one that reads goes on from there.
/// @return 0, or the error number
int AlarmSpool::ReadFront(std::size_t most, std::vector<std::string>& documents) {
    const Segment& front = m_segments.front();
    LineReader file(PathOf(front), m_offset);
    std::string line;
    while (m_passed > 0 && file.Next(line)) {
        --m_passed;
    }
    m_offset = file.Offset();
    if (m_passed > 0) {
        return file.Error();  // what follows has arrived
    }
    while (documents.size() < std::min(most, front.m_documents) && file.Next(line)) {
        documents.push_back(std::move(line));
    }
    return file.Error();
}

std::size_t AlarmSpool::GiveUpSegment() {
    Segment& front = m_segments.front();
    const std::size_t count = std::exchange(front.m_documents, 0);
    front.m_counted = true;
    RemoveFinished();
    return count;
}

std::size_t AlarmSpool::Clear() {
    const std::size_t count = Count();
    m_tail.Reset();
    for (const Segment& segment : m_segments) {
        ::unlink(PathOf(segment).c_str());
    }
    m_segments.clear();
    m_offset = 0;
    m_passed = 0;
    return count;
}

void AlarmSpool::Drop(std::size_t count) {
    while (count > 0 && !m_segments.empty() && m_segments.front().m_documents > 0) {
        Segment& front = m_segments.front();
        const std::size_t passed = std::min(count, front.m_documents);
        count -= passed;
        front.m_documents -= passed;
        m_passed += passed;
        MoveOffset();
        // Before the segment goes: an agent that is killed between the two leaves one of which all
        // has arrived.
        NotePosition();
        RemoveFinished();
    }
}

void AlarmSpool::MoveOffset() {
    if (m_segments.front().m_documents == 0) {
        m_offset = m_segments.front().m_bytes;
        m_passed = 0;
        return;
    }
    std::vector<std::string> none;
    if (const int error = ReadFront(0, none); error != 0) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Spool file(%s) cannot be read: %s. Alarms may be sent twice after a "
                        "start.",
                        PathOf(m_segments.front()), Poco::Error::getMessage(error));
    }
}

/// Removes the segments of which all has arrived.
void AlarmSpool::RemoveFinished() {
    while (!m_segments.empty() && m_segments.front().m_counted &&
           m_segments.front().m_documents == 0) {
        if (m_segments.size() == 1) {
            m_tail.Reset();
        }
        ::unlink(PathOf(m_segments.front()).c_str());
        m_segments.pop_front();
        m_offset = 0;
        m_passed = 0;
    }
}

void AlarmSpool::NotePosition() const {
    const std::string path = m_folder + '/' + m_name + ".position";
    // One sector, written over in place: it is there whole or not at all.
    const SDK::UniqueDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode));
    const std::string text =
        std::to_string(m_segments.front().m_number) + ' ' + std::to_string(m_offset) + '\n';
    if (!file || !WriteWhole(file.Get(), text)) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Spool file(%s) cannot be written: %s. Alarms may be sent twice after a "
                        "start.",
                        path, Poco::Error::getMessage(errno));
    }
}

std::size_t AlarmSpool::Count() const {
    std::size_t count = 0;
    for (const Segment& segment : m_segments) {
        count += segment.m_documents;
    }
    return count;
}

bool AlarmSpool::IsEmpty() const {
    return std::all_of(m_segments.begin(), m_segments.end(), [](const Segment& segment) {
        return segment.m_counted && segment.m_documents == 0;
    });
}

std::uint64_t AlarmSpool::Bytes() const {
    std::uint64_t bytes = 0;
    for (const Segment& segment : m_segments) {
        bytes += segment.m_bytes;
    }
    return bytes;
}

std::string AlarmSpool::PathOf(const Segment& segment) const {
    return m_folder + '/' + m_name + '.' + std::to_string(segment.m_number) + kEnding;
}

}  // namespace Engine
