// Starts short-lived commands as fast as it can, or at a given rate, and tells how long it took.
// The load of the agent's benchmarks: copied under a virtual machine's name it is a guest gone
// wild.
//
//   SpawnStorm storm COUNT RATE TIMES PROGRAM [ARG...]  RATE commands a second, 0: no limit
//   SpawnStorm hold COUNT                               sleeping children until stdin closes
//
// storm gives each command its number as last argument and, unless TIMES is "-", writes one line a
// command to the file TIMES: pid and CLOCK_MONOTONIC nanoseconds just before the spawn.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

struct Spawned {
    pid_t pid = 0;
    Clock::time_point when;
};

pid_t Spawn(std::vector<std::string> words) {
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid_t pid = 0;
    const int error =
        ::posix_spawn(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ);
    return error == 0 ? pid : -1;
}

int Storm(const std::vector<std::string>& options) {
    const long count = std::stol(options[0]);
    const double rate = std::stod(options[1]);
    const std::vector<std::string> command(options.begin() + 3, options.end());
    std::vector<Spawned> spawned;
    spawned.reserve(static_cast<std::size_t>(count));
    const Clock::time_point start = Clock::now();
    for (long i = 0; i < count; ++i) {
        if (rate > 0) {
            std::this_thread::sleep_until(start + std::chrono::nanoseconds(static_cast<long>(
                                                      static_cast<double>(i) * 1e9 / rate)));
        }
        std::vector<std::string> words = command;
        words.push_back(std::to_string(i));
        const Clock::time_point when = Clock::now();
        const pid_t pid = Spawn(words);
        if (pid < 0) {
            std::cerr << "SpawnStorm: cannot start " << words[0] << '\n';
            return 1;
        }
        spawned.push_back({pid, when});
        ::waitpid(pid, nullptr, 0);
    }
    const std::chrono::duration<double> took = Clock::now() - start;
    std::cout << took.count() << '\n';
    if (options[2] != "-") {
        std::ofstream times(options[2]);
        for (const Spawned& one : spawned) {
            times << one.pid << ' ' << one.when.time_since_epoch().count() << '\n';
        }
    }
    return 0;
}

int Hold(const std::vector<std::string>& options) {
    std::vector<pid_t> children;
    for (long i = std::stol(options[0]); i > 0; --i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::pause();
            ::_exit(0);
        }
        if (pid > 0) {
            children.push_back(pid);
        }
    }
    std::cout << children.size() << std::endl;
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    for (const pid_t pid : children) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() >= 5 && words[0] == "storm") {
        return Storm({words.begin() + 1, words.end()});
    }
    if (words.size() == 2 && words[0] == "hold") {
        return Hold({words.begin() + 1, words.end()});
    }
    std::cerr << "usage: SpawnStorm storm COUNT RATE TIMES PROGRAM [ARG...] | hold COUNT\n";
    return 2;
}
