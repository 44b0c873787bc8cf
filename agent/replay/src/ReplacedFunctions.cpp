// Functions of the C library and of the SDK that stand before the real ones in the program that
// replays. Because it exports its symbols, every library that it loads is led here, the modules
// too. The agent that watches a host has none of this.

#include "RecordedFiles.h"
#include "VirtualClock.h"
#include "sdk/FileUtils.h"

#include <dlfcn.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

namespace {

using Replay::RecordedFiles;
using Replay::VirtualClock;

constexpr std::int64_t kUsPerS = 1000000;

// As the compiler writes it: int SDK::FileUtils::ReadFile(const std::string&, bool&, std::string&,
// std::size_t).
constexpr const char* kReadFile =
    "_ZN3SDK9FileUtils8ReadFileERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERbRS6_m";
constexpr const char* kIsFile =
    "_ZN3SDK9FileUtils6IsFileERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";

/// The function that would have been called.
template <typename FunctionT>
FunctionT* Real(const char* name) {
    return reinterpret_cast<FunctionT*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" time_t time(time_t* result) noexcept {
    static auto* const real = Real<time_t(time_t*)>("time");
    const VirtualClock* clock = VirtualClock::Current();
    if (clock == nullptr) {
        return real(result);
    }
    const time_t now = clock->Now() / kUsPerS;
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

extern "C" int usleep(useconds_t microseconds) {
    static auto* const real = Real<int(useconds_t)>("usleep");
    VirtualClock* clock = VirtualClock::Current();
    if (clock == nullptr) {
        return real(microseconds);
    }
    clock->Sleep(microseconds);
    return 0;
}

extern "C" int epoll_wait(int descriptor, epoll_event* events, int most, int milliseconds) {
    static auto* const real = Real<int(int, epoll_event*, int, int)>("epoll_wait");
    VirtualClock* clock = VirtualClock::Current();
    if (clock == nullptr || milliseconds == 0) {
        return real(descriptor, events, most, milliseconds);
    }
    clock->WaitFor(descriptor, milliseconds);
    return real(descriptor, events, most, 0);
}

namespace SDK {

int FileUtils::ReadFile(const std::string& path, bool& truncated, std::string& content,
                        std::size_t maxBytes) {
    static auto* const real =
        Real<int(const std::string&, bool&, std::string&, std::size_t)>(kReadFile);
    const RecordedFiles* files = RecordedFiles::Current();
    std::string text;
    if (files == nullptr || !files->FindText(path, text)) {
        return real(path, truncated, content, maxBytes);
    }
    truncated = text.size() > maxBytes;
    content = text.substr(0, maxBytes);
    return 0;
}

bool FileUtils::IsFile(const std::string& path) {
    static auto* const real = Real<bool(const std::string&)>(kIsFile);
    const RecordedFiles* files = RecordedFiles::Current();
    bool regular = false;
    return files != nullptr && files->FindRegular(path, regular) ? regular : real(path);
}

}  // namespace SDK
