#include "sdk/ProcessUtils.h"

#include "sdk/FileUtils.h"
#include "sdk/Mutex.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <utility>

namespace SDK {

namespace {

// The process's numbers end well before this; names are at most 64 bytes (proc(5), workers' names).
constexpr std::size_t kStatBytes = 1024;

/// The registered look-up and the lock that keeps it alive while a thread is inside.
struct LookupSlot {
    SharedMutex m_mutex;
    ProcessUtils::Lookup m_lookup SDK_GUARDED_BY(m_mutex);
};

LookupSlot& Slot() {
    // Never destroyed: tasks may look up until the very end of the process.
    static auto* const slot = new LookupSlot;
    return *slot;
}

bool AskLookup(int pid, ProcessUtils::procRecord& record) {
    LookupSlot& slot = Slot();
    const SharedLockGuard lock(slot.m_mutex);
    return slot.m_lookup && slot.m_lookup(pid, record);
}

bool ReadProcFile(int pid, const char* file, std::string& content, std::size_t maxBytes) {
    bool truncated = false;
    return FileUtils::ReadFile("/proc/" + std::to_string(pid) + file, truncated, content,
                               maxBytes) == 0;
}

/// Parses "pid (name) state ppid ..." (proc(5)). The name may itself hold blanks and parentheses,
/// so it ends at the last closing one.
bool ParseStat(const std::string& text, ProcessUtils::procStatus& status) {
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    // ") S 1": the parent's number stands four characters behind the name.
    if (open == std::string::npos || close == std::string::npos || close < open ||
        text.size() < close + 5) {
        return false;
    }
    const char* const end = text.data() + text.size();
    if (std::from_chars(text.data() + close + 4, end, status.m_ppid).ec != std::errc()) {
        return false;
    }
    status.m_name = text.substr(open + 1, close - open - 1);
    return true;
}

}  // namespace

void ProcessUtils::SetLookup(Lookup lookup) {
    LookupSlot& slot = Slot();
    const LockGuard lock(slot.m_mutex);
    slot.m_lookup = std::move(lookup);
}

int ProcessUtils::GetProcessStatusInfo(int pid, procStatus& status) {
    procRecord record;
    if (AskLookup(pid, record)) {
        status = std::move(record.m_status);
        return 0;
    }
    std::string text;
    procStatus read;
    if (!ReadProcFile(pid, "/stat", text, kStatBytes) || !ParseStat(text, read)) {
        return -1;
    }
    read.m_pid = pid;
    status = std::move(read);
    return 0;
}

int ProcessUtils::GetProcessCmdline(int pid, std::string& cmdline, int maxBytes) {
    const auto limit = static_cast<std::size_t>(std::max(maxBytes, 0));
    procRecord record;
    if (AskLookup(pid, record)) {
        record.m_cmdline.resize(std::min(record.m_cmdline.size(), limit));
        cmdline = std::move(record.m_cmdline);
        return 0;
    }
    std::string text;
    if (!ReadProcFile(pid, "/cmdline", text, limit)) {
        return -1;
    }
    std::replace(text.begin(), text.end(), '\0', ' ');
    text.erase(text.find_last_not_of(' ') + 1);
    cmdline = std::move(text);
    return 0;
}

}  // namespace SDK
