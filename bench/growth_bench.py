#!/usr/bin/env python3
"""growth_bench.py BUILD [--json FILE]: how cost grows with what there is to watch.

Each size is measured five times, in turns with its peers and with the other sizes, in this one run. How the command task grows with tracked processes and rules is CommandTaskBench's. Needs root.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import time

from file_bench import measure_bare, measure_watched, run_storm as run_opens, start_agent
from harness import (MONITORED, Agent, Peer, main, med, quiet, ratio_of, resident_mb, row, run_storm,
                     schedstat_seconds)
from net_bench import DESCRIPTORS, measure_tables

RUNS = 5
SECONDS = 5
RATES = (10, 100, 1000, 0)  # execs a second; 0: as many as one program can start
LIMIT_EXECS = 5000
TRACKED = (100, 1000, 5000, 20000)
TRACKED_EXECS = 5000
DIRECTORIES = (10, 100, 1000, 10000)
OPENS = 100000
PROCESSES = (10, 100, 500, 2000)


def turns(sizes):
    """Every size once, and that RUNS times."""
    return (size for _ in range(RUNS) for size in sizes)


def cpu_of_execs(pid, storm, count, rate):
    """Microseconds of a watcher for each exec, its share of a core meanwhile, and execs a second. What it
    does without execs is in it, which counts where they are few."""
    quiet(pid)
    before = schedstat_seconds(pid)
    seconds = run_storm(storm, count, rate)
    quiet(pid)
    used = schedstat_seconds(pid) - before
    return used / count * 1e6, used / seconds * 100, count / seconds


def measure_rates(build, folder, storm, plain):
    results = {rate: {"ours": [], "share": [], "rate": [], "forkstat": []} for rate in RATES}
    for rate in turns(RATES):
        count = rate * SECONDS or LIMIT_EXECS
        agent = Agent(build, tempfile.mkdtemp(dir=folder))
        agent.wait_ready(storm)
        ours, share, reached = cpu_of_execs(agent.process.pid, plain, count, rate)
        agent.stop()
        for name, value in (("ours", ours), ("share", share), ("rate", reached)):
            results[rate][name].append(value)
        if shutil.which("forkstat"):
            peer = Peer(["forkstat", "-e", "exec", "-l"], folder, "forkstat")
            results[rate]["forkstat"].append(cpu_of_execs(peer.process.pid, plain, count, rate)[0])
            peer.stop()
    return results


def measure_tracked(build, folder, storm, plain):
    """What a command elsewhere costs, and the agent's memory, with so many processes below a machine."""
    results = {size: {"ours": [], "memory": []} for size in TRACKED}
    for size in turns(TRACKED):
        agent = Agent(build, tempfile.mkdtemp(dir=folder))
        agent.wait_ready(storm)
        holder = subprocess.Popen([storm, "hold", str(size)], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE)
        held = int(holder.stdout.readline())
        if held != size:
            print(f"growth_bench: {held} of {size} processes could be started", file=sys.stderr)
        results[size]["ours"].append(cpu_of_execs(agent.process.pid, plain, TRACKED_EXECS, 0)[0])
        results[size]["memory"].append(resident_mb(agent.process.pid))
        holder.stdin.close()
        holder.wait()
        holder.stdout.close()
        agent.stop()
    return results


def measure_directories(build, folder):
    storm = os.path.join(build, "bench/OpenStorm")
    results = {size: {"ours": [], "bare": [], "ready": []} for size in DIRECTORIES}
    for size in DIRECTORIES:
        subprocess.run([storm, "make", os.path.join(folder, f"tree{size}"), str(size)], check=True)
    for size in turns(DIRECTORIES):
        root = os.path.join(folder, f"tree{size}")
        run_opens(storm, root, size, size)  # both find the directories in the kernel's cache
        results[size]["bare"].append(measure_bare(build, storm, root, size, OPENS)[1])
        start = time.monotonic()
        agent = start_agent(build, folder, root, size)
        results[size]["ready"].append(time.monotonic() - start)
        results[size]["ours"].append(measure_watched(agent.process.pid, storm, root, size, OPENS)[1])
        agent.stop()
    return results


def measure_descriptors(build):
    results = {size: {"bpf": [], "proc": [], "ss": [], "lsof": []} for size in PROCESSES}
    for size in turns(PROCESSES):
        for source, milliseconds in measure_tables(build, size, 3 * size, 1)[0].items():
            results[size][source] += milliseconds
    return results


def medians(results):
    return {size: {name: med(values) for name, values in figures.items()}
            for size, figures in results.items()}


def growth_rows(rows, rates, tracked, directories, descriptors):
    for rate, found in rates.items():
        row(rows, f"{rate} execs a second" if rate else f"as many as one program can start: {found['rate']:.0f}",
            f"{found['ours']:.1f} us each, {found['share']:.2f} % of a core",
            f"forkstat {found['forkstat']:.1f} us" if found["forkstat"] else "-", "-", True,
            ratio_of(found["ours"], found["forkstat"]))
    for size, found in tracked.items():
        row(rows, f"{size} processes below a machine",
            f"{found['ours']:.1f} us for each exec elsewhere, {found['memory']:.1f} MB", "-", "-", True)
    for size, found in directories.items():
        row(rows, f"{size} watched directories",
            f"{found['ours']:.2f} us for each open, watched {found['ready']:.2f} s after the start",
            f"bare fanotify reader {found['bare']:.2f} us", "-", True,
            ratio_of(found["ours"], found["bare"]))
    for size, found in descriptors.items():
        lsof = f", lsof -i {found['lsof']:.0f} ms" if found["lsof"] else ""
        row(rows, f"socket table, {size} processes of {DESCRIPTORS} descriptors",
            f"{found['bpf']:.1f} ms (/proc: {found['proc']:.0f} ms)", f"ss {found['ss']:.0f} ms{lsof}", "-", True,
            ratio_of(found["bpf"], found["ss"]))


def measure(build, folder):
    plain = os.path.join(build, "bench/SpawnStorm")
    storm = os.path.join(folder, MONITORED)
    shutil.copy(plain, storm)
    rows, raw = [], {}
    for name, run in (("rates", lambda: measure_rates(build, folder, storm, plain)),
                      ("tracked", lambda: measure_tracked(build, folder, storm, plain)),
                      ("directories", lambda: measure_directories(build, folder)),
                      ("descriptors", lambda: measure_descriptors(build))):
        print(f"growth_bench: {name}", file=sys.stderr)
        raw[name] = run()
    growth_rows(rows, *(medians(results) for results in raw.values()))
    return rows, raw


if __name__ == "__main__":
    sys.exit(main(__doc__, measure))
