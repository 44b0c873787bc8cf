#!/usr/bin/env python3
"""file_bench.py BUILD [--json FILE]: what watching files costs, beside a bare fanotify reader.

A tree of 10,000 directories is watched while programs that concern nobody open files in it. Watched by
nobody, by the bare reader and by the agent, in turns, in this one run. Needs root.
"""
import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from agent_bench import MONITORED, Agent, med, percentile, row, schedstat_seconds, show

RUNS = 15
DIRECTORIES = 10000
OPENS = 400000
TOUCHES = 500


def policies(root):
    return {"qemu_file_detect_feature": {
        "action": True, "senstive_dirs": [root],
        "monitor_list": [{"virtmonitor": MONITORED, "filelist": []}]}}


def start_agent(build, folder, root):
    agent = Agent(build, tempfile.mkdtemp(dir=folder), policies(root), "information")
    agent.wait_for_log(f"{DIRECTORIES + 1} directories are watched.")
    return agent


def run_storm(storm, root):
    """Microseconds for each open."""
    done = subprocess.run([storm, "storm", root, str(DIRECTORIES), str(OPENS)], check=True,
                          capture_output=True, text=True)
    return float(done.stdout) / OPENS * 1e6


def quiet(pid):
    """Waits until a watcher has caught up: it uses no more processor time."""
    last = -1.0
    while schedstat_seconds(pid) - last > 0.002:
        last = schedstat_seconds(pid)
        time.sleep(0.2)


def measure_watched(pid, storm, root):
    """Microseconds for each open: the opener's time, and the watcher's processor time."""
    quiet(pid)
    before = schedstat_seconds(pid)
    opener = run_storm(storm, root)
    quiet(pid)
    return opener, (schedstat_seconds(pid) - before) / OPENS * 1e6


def measure_costs(build, folder, storm, root):
    results = {key: [] for key in ("none", "bare", "bare_cpu", "agent", "agent_cpu")}
    logs = []
    for _ in range(RUNS):
        results["none"].append(run_storm(storm, root))
        bare = subprocess.Popen([os.path.join(build, "bench/BareFileWatch"), root, str(DIRECTORIES)],
                                stdout=subprocess.PIPE)
        bare.stdout.readline()
        opener, cpu = measure_watched(bare.pid, storm, root)
        results["bare"].append(opener)
        results["bare_cpu"].append(cpu)
        bare.send_signal(signal.SIGTERM)
        run_one = [storm, "storm", root, "1", "1"]
        subprocess.run(run_one, check=True, capture_output=True)  # one event, so that it looks up
        bare.wait()
        agent = start_agent(build, folder, root)
        opener, cpu = measure_watched(agent.process.pid, storm, root)
        results["agent"].append(opener)
        results["agent_cpu"].append(cpu)
        logs.append(agent.stop_and_read_log())
    return results, logs


def measure_latency(build, folder, storm, toucher, root):
    """Milliseconds from just before an access by a monitored program to its alarm, in the storm."""
    agent = start_agent(build, folder, root)
    noise = [subprocess.Popen([storm, "storm", root, str(DIRECTORIES), "1000000000"],
                              stdout=subprocess.DEVNULL) for _ in range(1)]
    times = os.path.join(folder, "times")
    time.sleep(1)
    subprocess.run([toucher, "touch", root, str(DIRECTORIES), str(TOUCHES), "100", times], check=True)
    agent.settle()
    for process in noise:
        process.kill()
        process.wait()
    touched = {}
    with open(times, encoding="utf-8") as stream:
        for line in stream:
            path, when = line.split()
            touched[path] = int(when)
    latencies = {}
    for arrival, line in agent.alarms:
        path = json.loads(line)["file_info"][0]["file_path"]
        if path in touched and path not in latencies:
            latencies[path] = (arrival - touched[path]) / 1e6
    return list(latencies.values()), agent.stop_and_read_log()


def lost(log):
    """What the agent's books say of losses: (times in the kernel, messages)."""
    kernel = re.search(r"(\d+) times lost by the kernel", log)
    behind = re.search(r"(\d+) lost because the task was behind", log)
    return int(kernel.group(1)), int(behind.group(1))


def cost_rows(rows, results, logs):
    none = med(results["none"])
    cpu = med(results["agent_cpu"]) / med(results["bare_cpu"])
    ratios = [(a - n) / (b - n) for a, b, n in zip(results["agent"], results["bare"], results["none"])]
    slow = med(ratios)
    row(rows, f"CPU for each of {OPENS} opens by others under {DIRECTORIES} directories",
        f"{show(med(results['agent_cpu']), ' us')}, {cpu:.2f} x", f"bare fanotify reader "
        f"{show(med(results['bare_cpu']), ' us')}", "<= 2.5 x", cpu <= 2.5)
    row(rows, f"slow-down of each open (alone {none:.2f} us)",
        f"{med(results['agent']) - none:.2f} us, {slow:.2f} x", f"bare fanotify reader "
        f"{med(results['bare']) - none:.2f} us", "<= 1.1 x", slow <= 1.1)
    losses = [lost(log) for log in logs]
    row(rows, "lost of them, by the kernel's queue and behind it", str(losses), "-", "none",
        all(loss == (0, 0) for loss in losses))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build")
    parser.add_argument("--json")
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    storm = os.path.join(build, "bench/OpenStorm")
    rows = []
    with tempfile.TemporaryDirectory() as folder:
        root = os.path.join(folder, "tree")
        toucher = os.path.join(folder, MONITORED)
        shutil.copy(storm, toucher)
        subprocess.run([storm, "make", root, str(DIRECTORIES)], check=True)
        print("file_bench: costs", file=sys.stderr)
        cost_rows(rows, *measure_costs(build, folder, storm, root))
        print("file_bench: latency", file=sys.stderr)
        latencies, log = measure_latency(build, folder, storm, toucher, root)
        row(rows, "access to alarm written, in a storm of opens",
            f"p50 {percentile(latencies, 0.5):.2f} ms, p99 {percentile(latencies, 0.99):.2f} ms, "
            f"{len(latencies)} of {TOUCHES} seen, lost {lost(log)}", "-", "p99 <= 50 ms",
            percentile(latencies, 0.99) <= 50 and len(latencies) == TOUCHES)
    for one in rows:
        print(f"{one['what']} | {one['ours']} | {one['peer']} | {one['target']} | "
              f"{'met' if one['met'] else 'MISSED'}")
    if options.json:
        with open(options.json, "w", encoding="utf-8") as stream:
            json.dump(rows, stream, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
