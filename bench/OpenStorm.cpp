// OpenStorm: file accesses as a load.
//
//   OpenStorm make ROOT DIRECTORIES                   makes a tree: ROOT/dN/file
//   OpenStorm storm ROOT DIRECTORIES OPENS            opens its files in turn; prints the seconds
//   OpenStorm touch ROOT DIRECTORIES TIMES RATE OUT   opens files of its own, RATE a second
//
// touch writes the path and the moment of each access, nanoseconds of the monotonic clock, to OUT.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

std::string FileIn(const std::string& root, long directory, const char* name) {
    return root + "/d" + std::to_string(directory) + '/' + name;
}

int Fail(const std::string& what) {
    std::perror(what.c_str());
    return 1;
}

bool Open(const std::string& path, int flags) {
    const int file = ::open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (file < 0) {
        return false;
    }
    ::close(file);
    return true;
}

int Make(const std::string& root, long directories) {
    ::mkdir(root.c_str(), 0700);
    for (long i = 0; i < directories; ++i) {
        ::mkdir((root + "/d" + std::to_string(i)).c_str(), 0700);
        for (const char* name : {"file", "secret"}) {
            if (!Open(FileIn(root, i, name), O_WRONLY | O_CREAT)) {
                return Fail(FileIn(root, i, name));
            }
        }
    }
    return 0;
}

int Storm(const std::string& root, long directories, long opens) {
    const auto start = Clock::now();
    for (long i = 0; i < opens; ++i) {
        const std::string path = FileIn(root, i % directories, "file");
        if (!Open(path, O_RDONLY)) {
            return Fail(path);
        }
    }
    std::printf("%.6f\n", std::chrono::duration<double>(Clock::now() - start).count());
    return 0;
}

int Touch(const std::string& root, long directories, long times, long rate, const char* out) {
    std::ofstream log(out);
    auto next = Clock::now();
    for (long i = 0; i < times; ++i) {
        const std::string path = FileIn(root, i % directories, "secret");
        const auto now = Clock::now().time_since_epoch();
        if (!Open(path, O_RDONLY)) {
            return Fail(path);
        }
        log << path << ' ' << std::chrono::nanoseconds(now).count() << '\n';
        next += std::chrono::nanoseconds(1000000000 / rate);
        std::this_thread::sleep_until(next);
    }
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    const std::string mode = count > 1 ? arguments[1] : "";
    const auto number = [&](int at) { return std::atol(arguments[at]); };
    if (mode == "make" && count == 4) {
        return Make(arguments[2], number(3));
    }
    if (mode == "storm" && count == 5) {
        return Storm(arguments[2], number(3), number(4));
    }
    if (mode == "touch" && count == 7) {
        return Touch(arguments[2], number(3), number(4), number(5), arguments[6]);
    }
    std::fprintf(stderr, "usage: see the head of OpenStorm.cpp\n");
    return 2;
}
