#include "support/BrokenListing.h"

#include <dirent.h>
#include <dlfcn.h>

#include <cerrno>

namespace TestSupport {

namespace {

constexpr int kAll = -1;

thread_local int g_left = kAll;

}  // namespace

BrokenListing::BrokenListing(int entries) { g_left = entries; }

BrokenListing::~BrokenListing() { g_left = kAll; }

}  // namespace TestSupport

// By its name in the library: the header of folders may give the function another one.
extern "C" dirent* ReadEntry(DIR* folder) __asm__("readdir");

/// Stands before the C library's function in test programs.
extern "C" dirent* ReadEntry(DIR* folder) {
    using TestSupport::g_left;
    using Function = dirent* (*)(DIR*);
    static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "readdir"));
    if (g_left == 0) {
        errno = EIO;
        return nullptr;
    }
    g_left -= g_left > 0 ? 1 : 0;
    return next(folder);
}
