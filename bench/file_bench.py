#!/usr/bin/env python3
"""file_bench.py BUILD [--json FILE]: what watching files costs, beside a bare fanotify reader.

A tree of 10,000 directories is watched while programs that concern nobody open files in it. Watched by
nobody, by the bare reader, by the agent and by fatrace, in turns, in this one run. Needs root.
"""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile

from harness import (MONITORED, Agent, Peer, end_with_us, main, med, quiet, ratio_of, row, schedstat_seconds,
                     show)

RUNS = 15
DIRECTORIES = 10000
OPENS = 400000
FATRACE_EVERY = 3  # turns: it is slow


def start_agent(build, folder, root, directories=DIRECTORIES):
    policy = {"qemu_file_detect_feature": {
        "action": True, "senstive_dirs": [root],
        "monitor_list": [{"virtmonitor": MONITORED, "filelist": []}]}}
    agent = Agent(build, tempfile.mkdtemp(dir=folder), policy, "information")
    agent.wait_for_log(f"{directories + 1} directories are watched.")
    return agent


def run_storm(storm, root, directories, opens):
    """Microseconds for each open."""
    done = subprocess.run([storm, "storm", root, str(directories), str(opens)], check=True,
                          capture_output=True, text=True)
    return float(done.stdout) / opens * 1e6


def measure_watched(pid, *load):
    """Microseconds for each open: the opener's time, and the watcher's processor time."""
    quiet(pid)
    before = schedstat_seconds(pid)
    opener = run_storm(*load)
    quiet(pid)
    return opener, (schedstat_seconds(pid) - before) / load[-1] * 1e6


def measure_bare(build, storm, root, directories, opens):
    bare = end_with_us(subprocess.Popen([os.path.join(build, "bench/BareFileWatch"), root,
                                         str(directories)], stdout=subprocess.PIPE))
    if bare.stdout.readline() != b"ready\n":
        sys.exit("file_bench: the bare reader does not work here")
    figures = measure_watched(bare.pid, storm, root, directories, opens)
    bare.send_signal(signal.SIGTERM)
    run_storm(storm, root, 1, 1)  # one event, so that it looks up
    bare.wait()
    bare.stdout.close()
    return figures


def measure_fatrace(folder, storm, root, opens):
    """fatrace watches the whole file system; nothing narrower is to be had from it."""
    peer = Peer(["fatrace", "-c"], folder, "fatrace", root)
    figures = measure_watched(peer.process.pid, storm, root, DIRECTORIES, opens)
    peer.stop()
    os.remove(peer.path)
    return figures


def measure_costs(build, folder, storm, root):
    results = {key: [] for key in ("none", "bare", "bare_cpu", "fatrace", "fatrace_cpu", "agent",
                                   "agent_cpu")}
    logs = []

    def keep(name, figures):
        results[name].append(figures[0])
        results[name + "_cpu"].append(figures[1])

    load = (storm, root, DIRECTORIES, OPENS)
    for turn in range(RUNS):
        results["none"].append(run_storm(*load))
        keep("bare", measure_bare(build, *load))
        agent = start_agent(build, folder, root)
        keep("agent", measure_watched(agent.process.pid, *load))
        logs.append(agent.stop_and_read_log())
        if turn % FATRACE_EVERY == 0 and shutil.which("fatrace"):
            keep("fatrace", measure_fatrace(folder, storm, root, OPENS))
    return results, logs


def lost(log):
    """What the agent's books say of losses: (times in the kernel, messages)."""
    kernel = re.search(r"(\d+) times lost by the kernel", log)
    behind = re.search(r"(\d+) lost because the task was behind", log)
    if kernel is None or behind is None:
        sys.exit("file_bench: the agent wrote no books:\n" + log[-4000:])
    return int(kernel.group(1)), int(behind.group(1))


def cost_rows(rows, results, logs):
    none = med(results["none"])
    ours_cpu, bare_cpu = med(results["agent_cpu"]), med(results["bare_cpu"])
    fatrace, fatrace_cpu = med(results["fatrace"]), med(results["fatrace_cpu"])
    row(rows, f"CPU for each of {OPENS} opens by others under {DIRECTORIES} directories",
        show(ours_cpu, " us"), f"bare fanotify reader {show(bare_cpu, ' us')}, fatrace "
        f"{show(fatrace_cpu, ' us')}", "<= 2.5 x the bare reader", ours_cpu <= 2.5 * bare_cpu,
        ratio_of(ours_cpu, bare_cpu))
    slow = med([a - n for a, n in zip(results["agent"], results["none"])])
    bare_slow = med([b - n for b, n in zip(results["bare"], results["none"])])
    row(rows, f"slow-down of each open (alone {none:.2f} us)", f"{slow:.2f} us",
        f"bare fanotify reader {bare_slow:.2f} us, fatrace "
        f"{show(fatrace and fatrace - none, ' us')}", "<= 1.1 x the bare reader",
        slow <= 1.1 * bare_slow, ratio_of(slow, bare_slow))
    losses = [lost(log) for log in logs]
    row(rows, "lost of them, by the kernel's queue and behind it",
        f"{sum(a + b for a, b in losses)} in {len(losses)} turns", "-", "none",
        all(loss == (0, 0) for loss in losses))


def measure(build, folder):
    rows = []
    storm = os.path.join(build, "bench/OpenStorm")
    root = os.path.join(folder, "tree")
    subprocess.run([storm, "make", root, str(DIRECTORIES)], check=True)
    print("file_bench: costs", file=sys.stderr)
    results, logs = measure_costs(build, folder, storm, root)
    cost_rows(rows, results, logs)
    return rows, results


if __name__ == "__main__":
    sys.exit(main(__doc__, measure))
