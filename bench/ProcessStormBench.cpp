// What it costs to watch processes: storms of short-lived commands, alone, under the process
// collector, and under forkstat (a watcher on the kernel's process connector), in turns.
//
//     ProcessStormBench [rounds [commands [bpf|connector]]]
//
// Needs root. Prints the medians over all rounds.

#include "ProcessCollector.h"
#include "SourceChoice.h"
#include "framework/EventWaiter.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {

using Engine::ProcsMessage;

constexpr const char* kCommand = "/bin/true";
constexpr const char* kMark = "an argument that is worth something only when it is complete";
constexpr int kStorms = 2;
constexpr const char* kPeerOutput = "/tmp/process-storm-bench.forkstat";

double Seconds(const timespec& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

double ThreadSeconds() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return Seconds(time);
}

int Start(std::vector<std::string> arguments, posix_spawn_file_actions_t* actions = nullptr) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    int pid = -1;
    if (::posix_spawnp(&pid, pointers[0], actions, nullptr, pointers.data(), environ) != 0) {
        std::perror(pointers[0]);
        std::exit(1);
    }
    return pid;
}

// One process that runs commands one after the other.
int StartStorm(int storm, int commands) {
    const int pid = ::fork();
    if (pid != 0) {
        return pid;
    }
    for (int i = 0; i < commands; ++i) {
        ::waitpid(Start({kCommand, std::to_string(storm), std::to_string(i), kMark}), nullptr, 0);
    }
    ::_exit(0);
}

// All storms side by side. @return seconds
double RunStorms(int commands) {
    const auto begin = std::chrono::steady_clock::now();
    std::vector<int> pids;
    for (int storm = 0; storm < kStorms; ++storm) {
        pids.push_back(StartStorm(storm, commands));
    }
    for (const int pid : pids) {
        ::waitpid(pid, nullptr, 0);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

struct Result {
    double m_seconds = 0;  // the storms took
    double m_cpu = 0;      // seconds of the watcher's own CPU time
    std::size_t m_seen = 0;
};

bool IsStormCommand(const std::string& cmdline) { return cmdline.find(kMark) != std::string::npos; }

// The collector as its task runs it, with one subscriber on a thread of its own.
class Watcher {
public:
    explicit Watcher(const std::string& source)
        : m_inbox(std::make_shared<Framework::Inbox>("subscriber", 1 << 14)),
          m_collector(ProcessCollect::StartSource(source, 4 << 20), {}) {
        if (!m_collector.Start()) {
            std::fprintf(stderr, "the source does not start; root is needed\n");
            std::exit(1);
        }
        m_collector.Subscribe(ProcsMessage::FORK, m_inbox);
        m_collector.Subscribe(ProcsMessage::EXEC, m_inbox);
        m_collector.Subscribe(ProcsMessage::EXIT, m_inbox);
        m_reader = std::thread([this] { Read(); });
        m_subscriber = std::thread([this] { Subscribe(); });
    }

    // @return the CPU seconds of both threads and the commands seen with all their arguments
    Result Stop() {
        m_readerStops = true;
        m_reader.join();
        m_subscriberStops = true;
        m_inbox->Signal().RaiseAlways();
        m_subscriber.join();
        m_collector.Stop();
        return Result{0, m_readerCpu + m_subscriberCpu, m_commands.size()};
    }

private:
    void Read() {
        const auto ownInbox = std::make_shared<Framework::Inbox>("reader", 16);
        Framework::EventWaiter waiter(ownInbox);
        waiter.AddEvent(m_collector.Descriptor(), [] {});
        const double begin = ThreadSeconds();
        while (!m_readerStops) {
            waiter.WaitAndHandleEvent(m_collector.Pass(), 1);
        }
        m_collector.Pass();
        m_readerCpu = ThreadSeconds() - begin;
        waiter.RemoveEvent(m_collector.Descriptor());
    }

    void Subscribe() {
        Framework::EventWaiter waiter(m_inbox);
        const double begin = ThreadSeconds();
        while (!m_subscriberStops || !m_inbox->Empty()) {
            if (waiter.WaitAndHandleEvent(1000, 1) == -1) {
                Take();
            }
        }
        m_subscriberCpu = ThreadSeconds() - begin;
    }

    void Take() {
        std::vector<std::shared_ptr<Framework::Message>> messages;
        m_inbox->Receive(messages, 128);
        for (const auto& message : messages) {
            const auto& event = static_cast<const ProcsMessage&>(*message);
            std::shared_ptr<ProcsMessage::procInfo> info;
            event.GetProcInfo(info);
            if (event.GetProcFlag() == ProcsMessage::EXEC && IsStormCommand(info->m_cmdline)) {
                m_commands.insert(info->m_cmdline);
            }
        }
    }

    std::shared_ptr<Framework::Inbox> m_inbox;
    ProcessCollect::ProcessCollector m_collector;
    std::atomic<bool> m_readerStops{false};
    std::atomic<bool> m_subscriberStops{false};
    std::unordered_set<std::string> m_commands;
    double m_readerCpu = 0;
    double m_subscriberCpu = 0;
    std::thread m_reader;
    std::thread m_subscriber;
};

Result RunAlone(int commands) { return Result{RunStorms(commands), 0, 0}; }

Result RunCollector(const std::string& source, int commands) {
    Watcher watcher(source);
    const double seconds = RunStorms(commands);
    Result result = watcher.Stop();
    result.m_seconds = seconds;
    return result;
}

int StartPeer() {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, kPeerOutput,
                                       O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int pid = Start({"forkstat", "-e", "exec", "-l"}, &actions);
    ::posix_spawn_file_actions_destroy(&actions);
    // It listens once it has written its heading.
    for (int i = 0; i < 200 && std::ifstream(kPeerOutput).peek() == EOF; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return pid;
}

Result RunPeer(int commands) {
    const int pid = StartPeer();
    Result result{RunStorms(commands), 0, 0};
    ::kill(pid, SIGINT);
    rusage usage{};
    ::wait4(pid, nullptr, 0, &usage);
    result.m_cpu = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
    std::unordered_set<std::string> seen;
    std::ifstream output(kPeerOutput);
    for (std::string line; std::getline(output, line);) {
        const std::size_t command = line.find(kCommand);
        if (command != std::string::npos && IsStormCommand(line)) {
            seen.insert(line.substr(command));
        }
    }
    result.m_seen = seen.size();
    ::unlink(kPeerOutput);
    return result;
}

double Median(const std::vector<Result>& results, const std::function<double(const Result&)>& of) {
    std::vector<double> values;
    for (const Result& result : results) {
        values.push_back(of(result));
    }
    std::nth_element(values.begin(), values.begin() + static_cast<int>(values.size()) / 2,
                     values.end());
    return values[values.size() / 2];
}

// Each round's storms are compared with the ones that ran alone in the same round: what else the
// machine does changes slowly.
double MedianSlowDown(const std::vector<Result>& results, const std::vector<Result>& alone) {
    std::vector<Result> ratios;
    for (std::size_t i = 0; i < results.size(); ++i) {
        ratios.push_back(Result{results[i].m_seconds / alone[i].m_seconds - 1, 0, 0});
    }
    return Median(ratios, [](const Result& ratio) { return ratio.m_seconds; });
}

void Print(const char* name, const std::vector<Result>& results, const std::vector<Result>& alone,
           int execs) {
    const auto seconds = [](const Result& result) { return result.m_seconds; };
    const auto cpu = [](const Result& result) { return result.m_cpu; };
    const auto seen = [](const Result& result) { return static_cast<double>(result.m_seen); };
    std::printf("%-12s %10.3f %10.0f %10.1f %12.1f %12.1f\n", name, Median(results, seconds),
                execs / Median(results, seconds), 100 * Median(results, seen) / execs,
                1e6 * Median(results, cpu) / execs, 100 * MedianSlowDown(results, alone));
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    const int commands = argc > 2 ? std::atoi(argv[2]) : 2500;
    const std::string source = argc > 3 ? argv[3] : "bpf";
    std::vector<Result> alone;
    std::vector<Result> collector;
    std::vector<Result> peer;
    RunAlone(commands);  // warms the caches
    for (int round = 0; round < rounds; ++round) {
        alone.push_back(RunAlone(commands));
        collector.push_back(RunCollector(source, commands));
        peer.push_back(RunPeer(commands));
    }
    const int execs = kStorms * commands;
    std::printf("%d storms of %d commands side by side, medians of %d rounds\n", kStorms, commands,
                rounds);
    std::printf("%-12s %10s %10s %10s %12s %12s\n", "watcher", "seconds", "execs/s", "seen %",
                "CPU us/exec", "slow-down %");
    Print("none", alone, alone, execs);
    Print(source.c_str(), collector, alone, execs);
    Print("forkstat", peer, alone, execs);
    return 0;
}
