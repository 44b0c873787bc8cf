#!/usr/bin/env python3
"""latency_bench.py BUILD [--json FILE]: from what a guest does to the line that says so.

Milliseconds from just before a spawn, or an open, to the moment at which a reader of the agent's output
has the alarm, as percentiles and histograms; on an idle host, and beside storms. Needs root.
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

from harness import (COMMAND_POLICY, MONITORED, Agent, end_with_us, main, percentile, row,
                     run_storm)

SAMPLES = 3000
RATE = 100  # a second
STORM_RATE = 1000  # execs a second
DIRECTORIES = 10000
BUCKETS_MS = (0.25, 0.5, 1, 2, 4, 8, 16, 32, 64, float("inf"))


class Noise:
    """A load for as long as its block lasts. None is an idle host."""

    def __init__(self, command):
        self.command = command
        self.process = None

    def __enter__(self):
        if self.command:
            self.process = end_with_us(subprocess.Popen(self.command, stdout=subprocess.DEVNULL))
            time.sleep(1)  # until it is in full swing

    def __exit__(self, *_):
        if self.process:
            if self.process.poll() is not None:
                sys.exit("latency_bench: the load ended before the measurement")
            self.process.kill()
            self.process.wait()


def measure_execs(build, folder, storm, noise):
    agent = Agent(build, tempfile.mkdtemp(dir=folder), COMMAND_POLICY)
    agent.wait_ready(storm)
    first = len(agent.alarms)
    times = os.path.join(folder, "times")
    with Noise(noise):
        run_storm(storm, SAMPLES, RATE, times, "latency")
        agent.settle()
    with open(times, encoding="utf-8") as stream:
        spawned = {int(pid): int(when) for pid, when in map(str.split, stream)}
    latencies = []
    for arrival, line in agent.alarms[first:]:
        info = json.loads(line)["process_info"][0]
        if info["process_cmdline"].startswith("/bin/true latency"):
            latencies.append((arrival - spawned[info["process_pid"]]) / 1e6)
    agent.stop()
    return latencies


def measure_files(build, folder, toucher, root, noise):
    policy = {"qemu_file_detect_feature": {
        "action": True, "senstive_dirs": [root],
        "monitor_list": [{"virtmonitor": MONITORED, "filelist": []}]}}
    agent = Agent(build, tempfile.mkdtemp(dir=folder), policy, "information")
    agent.wait_for_log(f"{DIRECTORIES + 1} directories are watched.")
    times = os.path.join(folder, "times")
    with Noise(noise):
        subprocess.run([toucher, "touch", root, str(DIRECTORIES), str(SAMPLES), str(RATE), times],
                       check=True)
        agent.settle()
    with open(times, encoding="utf-8") as stream:
        touched = {path: int(when) for path, when in map(str.split, stream)}
    latencies = {}
    for arrival, line in agent.alarms:
        path = json.loads(line)["file_info"][0]["file_path"]
        if path in touched and path not in latencies:
            latencies[path] = (arrival - touched[path]) / 1e6
    agent.stop()
    return list(latencies.values())


def histogram(values):
    """How many values lie below each bound, and not below the one before."""
    counts = [0] * len(BUCKETS_MS)
    for value in values:
        counts[next(i for i, bound in enumerate(BUCKETS_MS) if value < bound)] += 1
    return counts


def latency_row(rows, what, values, target, good):
    if not values:
        row(rows, what, "none seen", "-", target, False)
        return
    p50, p99, p999 = (percentile(values, share) for share in (0.5, 0.99, 0.999))
    row(rows, what, f"p50 {p50:.2f}, p99 {p99:.2f}, p99.9 {p999:.2f}, worst {max(values):.2f} ms, "
        f"{len(values)} of {SAMPLES} seen", "-", target, len(values) == SAMPLES and good(p50, p99))


def measure(build, folder):
    rows, raw = [], {"bounds_ms": [*BUCKETS_MS[:-1], "more"]}
    spawn, opens = (os.path.join(build, "bench", name) for name in ("SpawnStorm", "OpenStorm"))
    guest = {}
    for program in (spawn, opens):
        place = tempfile.mkdtemp(dir=folder)
        guest[program] = os.path.join(place, MONITORED)
        shutil.copy(program, guest[program])
    root = os.path.join(folder, "tree")
    subprocess.run([opens, "make", root, str(DIRECTORIES)], check=True)
    execs = [spawn, "storm", str(600 * STORM_RATE), str(STORM_RATE), "-", "/bin/true", "noise"]
    storm_of_opens = [opens, "storm", root, str(DIRECTORIES), "1000000000"]
    for kind, loads in (("exec", (("idle", None), (f"under {STORM_RATE} exec/s", execs))),
                        ("access", (("idle", None), (f"under {STORM_RATE} exec/s", execs),
                                    ("in a storm of opens", storm_of_opens)))):
        for load, command in loads:
            print(f"latency_bench: {kind}, {load}", file=sys.stderr)
            name = f"{kind} to alarm written, {load}"
            if kind == "exec":
                values = measure_execs(build, folder, guest[spawn], command)
                latency_row(rows, name, values, "p50 <= 2 ms, p99 <= 10 ms",
                            lambda p50, p99: p50 <= 2 and p99 <= 10)
            else:
                values = measure_files(build, folder, guest[opens], root, command)
                latency_row(rows, name, values, "p99 <= 50 ms", lambda p50, p99: p99 <= 50)
            raw[name] = histogram(values)
    return rows, raw


if __name__ == "__main__":
    sys.exit(main(__doc__, measure))
