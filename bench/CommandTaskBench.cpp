// How many process messages the command task handles in a second on one core, without an alarm: the
// load of a busy host. Then how that changes with the number of tracked processes and the size of
// the policy.

#include "QemuCmdDetectPolicy.h"
#include "QemuCmdDetectTask.h"
#include "support/ScriptedTasks.h"

#include <Poco/AutoPtr.h>
#include <Poco/Format.h>
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using TestSupport::Process;
using TestSupport::Started;
using Messages = std::vector<std::shared_ptr<Framework::Message>>;

constexpr int kTracked = 20000;
constexpr int kBatch = 128;
constexpr int kFirstPid = 1000;

const char* const kMachine = "qemu-system-x86_64";
const char* const kWorker = "/usr/bin/worker";

/// So many rules, the machine's the last; so many allowed commands in each, the worker's the last.
std::vector<std::string> Rules(int rules, int entries) {
    std::string commands;
    for (int i = 1; i < entries; ++i) {
        commands += Poco::format("\"/usr/libexec/other-%d\",", i);
    }
    commands += Poco::format("\"%s\"", std::string(kWorker));
    std::vector<std::string> all;
    for (int i = 1; i <= rules; ++i) {
        const std::string machine = i < rules ? Poco::format("qemu-other-%d", i) : kMachine;
        all.push_back(Poco::format(R"({"virtcmd":"%s","cmdlist":[%s]})", machine, commands));
    }
    return all;
}

/// A task that follows one virtual machine with so many processes, all of them allowed.
Poco::AutoPtr<Engine::QemuCmdDetectTask> BusyTask(int tracked,
                                                  const std::vector<std::string>& rules) {
    Poco::AutoPtr<Engine::QemuCmdDetectTask> task = new Engine::QemuCmdDetectTask;
    auto policy = std::make_shared<Engine::QemuCmdDetectPolicy>("qemu_cmd_detect_feature");
    policy->Parse(TestSupport::CommandPolicy(rules));
    task->AttachFeaturePolicy(policy);
    task->GetSystemShellList();
    task->UpdateMonitorProcessList(Process(kFirstPid, kMachine, "qemu-system-x86_64 -name vm-01"));
    for (int pid = kFirstPid + 1; pid < kFirstPid + tracked; ++pid) {
        task->UpdateMonitorProcessList(
            Process(pid, "worker", "worker", kFirstPid, kMachine, kWorker));
    }
    return task;
}

/// Batches of messages about processes spread over the whole tree, or about strangers.
std::vector<Messages> Batches(bool below, int tracked) {
    std::vector<Messages> batches(64);
    int number = 0;
    for (Messages& batch : batches) {
        for (int i = 0; i < kBatch; ++i, number += 7919) {
            const int pid = kFirstPid + 1 + number % (tracked - 1);
            batch.push_back(Started(
                below ? Process(pid, "worker", "/usr/bin/worker --serve " + std::to_string(pid),
                                kFirstPid, kMachine, kWorker)
                      : Process(pid + 1000000, "cc1plus", "cc1plus -quiet a.cpp", 500, "g++",
                                "/usr/libexec/cc1plus")));
        }
    }
    return batches;
}

void HandleMessages(benchmark::State& state, bool below, int tracked,
                    const std::vector<std::string>& rules) {
    Poco::AutoPtr<Engine::QemuCmdDetectTask> task = BusyTask(tracked, rules);
    std::vector<Messages> batches = Batches(below, tracked);
    std::size_t next = 0;
    for (auto _ : state) {
        task->CheckSensitiveCmd(batches[next]);
        next = (next + 1) % batches.size();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void AllowedCommandsBelowAVirtualMachine(benchmark::State& state) {
    HandleMessages(state, true, kTracked, Rules(1, 1));
}
void CommandsElsewhereOnTheHost(benchmark::State& state) {
    HandleMessages(state, false, kTracked, Rules(1, 1));
}
void TrackedProcesses(benchmark::State& state) {
    HandleMessages(state, true, static_cast<int>(state.range(0)), Rules(1, 1));
}
void RulesAndEntries(benchmark::State& state) {
    HandleMessages(state, true, kTracked,
                   Rules(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))));
}

BENCHMARK(AllowedCommandsBelowAVirtualMachine);
BENCHMARK(CommandsElsewhereOnTheHost);
BENCHMARK(TrackedProcesses)->Arg(100)->Arg(1000)->Arg(5000)->Arg(20000);
BENCHMARK(RulesAndEntries)->ArgsProduct({{1, 10, 50}, {1, 10, 100}});

}  // namespace

BENCHMARK_MAIN();
