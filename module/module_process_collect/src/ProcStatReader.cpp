#include "ProcStatReader.h"

#include "sdk/FileUtils.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <utility>

namespace ProcessCollect {

namespace {

// The file is one line of 52 numbers; the name may add 64 bytes for a kernel worker.
constexpr std::size_t kMaxBytes = 4096;

// Fields behind the name, counted from the state, which proc_pid_stat(5) numbers 3.
constexpr std::size_t kState = 0;
constexpr std::size_t kParentPid = 1;
constexpr std::size_t kThreads = 17;
constexpr std::size_t kStartTime = 19;
constexpr std::size_t kStackStart = 25;
constexpr std::size_t kArgumentStart = 45;
constexpr std::size_t kFields = 46;

using Fields = std::array<std::string_view, kFields>;

bool SplitFields(std::string_view text, Fields& fields) {
    for (std::string_view& field : fields) {
        const std::size_t begin = text.find_first_not_of(' ');
        if (begin == std::string_view::npos) {
            return false;
        }
        text.remove_prefix(begin);
        field = text.substr(0, text.find_first_of(" \n"));
        text.remove_prefix(field.size());
    }
    return true;
}

template <typename T>
bool ParseNumber(std::string_view text, T& number) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end && !text.empty();
}

}  // namespace

bool ProcStatReader::Read(int pid, ProcStat& stat) {
    bool truncated = false;
    std::string text;
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    return SDK::FileUtils::ReadFile(path, truncated, text, kMaxBytes) == 0 && Parse(text, stat);
}

bool ProcStatReader::Parse(std::string_view text, ProcStat& stat) {
    // The name is whatever the process likes, parentheses and blanks included. What follows holds
    // none, so the name ends at the last one.
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return false;
    }
    Fields fields;
    if (!SplitFields(text.substr(close + 1), fields) || fields[kState].size() != 1) {
        return false;
    }
    ProcStat parsed;
    std::uint64_t startTicks = 0;
    if (!ParseNumber(fields[kParentPid], parsed.m_parentPid) ||
        !ParseNumber(fields[kThreads], parsed.m_threads) ||
        !ParseNumber(fields[kStartTime], startTicks) ||
        !ParseNumber(fields[kStackStart], parsed.m_marks.m_stackStart) ||
        !ParseNumber(fields[kArgumentStart], parsed.m_marks.m_argumentStart)) {
        return false;
    }
    parsed.m_comm = text.substr(open + 1, close - open - 1);
    parsed.m_state = fields[kState].front();
    parsed.m_startTime = startTicks * TickNanoseconds();
    stat = std::move(parsed);
    return true;
}

std::uint64_t ProcStatReader::TickNanoseconds() {
    static const auto tick =
        std::uint64_t{1'000'000'000} / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    return tick;
}

}  // namespace ProcessCollect
