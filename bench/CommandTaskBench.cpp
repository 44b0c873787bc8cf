// How many process messages the command task handles in a second on one core, with 20,000 tracked
// processes and no alarm: the load of a busy host.

#include "QemuCmdDetectPolicy.h"
#include "QemuCmdDetectTask.h"
#include "support/ScriptedTasks.h"

#include <Poco/AutoPtr.h>
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

/// A task that follows one virtual machine with 20,000 processes, all of them allowed.
Poco::AutoPtr<Engine::QemuCmdDetectTask> BusyTask() {
    Poco::AutoPtr<Engine::QemuCmdDetectTask> task = new Engine::QemuCmdDetectTask;
    auto policy = std::make_shared<Engine::QemuCmdDetectPolicy>("qemu_cmd_detect_feature");
    policy->Parse(TestSupport::CommandPolicy(
        {R"({"virtcmd":"qemu-system-x86_64","cmdlist":["/usr/bin/worker"]})"}));
    task->AttachFeaturePolicy(policy);
    task->GetSystemShellList();
    task->UpdateMonitorProcessList(
        Process(kFirstPid, "qemu-system-x86_64", "qemu-system-x86_64 -name vm-01"));
    for (int pid = kFirstPid + 1; pid < kFirstPid + kTracked; ++pid) {
        task->UpdateMonitorProcessList(
            Process(pid, "worker", "worker", kFirstPid, "qemu-system-x86_64", "/usr/bin/worker"));
    }
    return task;
}

/// Batches of messages about processes spread over the whole tree, or about strangers.
std::vector<Messages> Batches(bool below) {
    std::vector<Messages> batches(64);
    int number = 0;
    for (Messages& batch : batches) {
        for (int i = 0; i < kBatch; ++i, number += 7919) {
            const int pid = kFirstPid + 1 + number % (kTracked - 1);
            batch.push_back(Started(
                below ? Process(pid, "worker", "/usr/bin/worker --serve " + std::to_string(pid),
                                kFirstPid, "qemu-system-x86_64", "/usr/bin/worker")
                      : Process(pid + 1000000, "cc1plus", "cc1plus -quiet a.cpp", 500, "g++",
                                "/usr/libexec/cc1plus")));
        }
    }
    return batches;
}

void HandleMessages(benchmark::State& state, bool below) {
    Poco::AutoPtr<Engine::QemuCmdDetectTask> task = BusyTask();
    std::vector<Messages> batches = Batches(below);
    std::size_t next = 0;
    for (auto _ : state) {
        task->CheckSensitiveCmd(batches[next]);
        next = (next + 1) % batches.size();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void AllowedCommandsBelowAVirtualMachine(benchmark::State& state) { HandleMessages(state, true); }
void CommandsElsewhereOnTheHost(benchmark::State& state) { HandleMessages(state, false); }

BENCHMARK(AllowedCommandsBelowAVirtualMachine);
BENCHMARK(CommandsElsewhereOnTheHost);

}  // namespace

BENCHMARK_MAIN();
