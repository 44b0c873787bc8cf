#!/usr/bin/env python3
"""agent_bench.py BUILD [--json FILE]: what the whole agent costs, beside forkstat and auditd.

Each figure is measured beside its peers, in turns, in this one run, and printed as a row of the table.
Needs root, and forkstat and auditd for their columns.
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from harness import (MONITORED, Agent, Peer, alarm_lines, end_with_us, main, med, ratio_of, resident_mb, row,
                     run_storm, schedstat_seconds, show)

RUNS = 5
STORM = 5000
STORMS = 2
IDLE = 10  # seconds


def run_storms(storm, tag):
    """Storms side by side; the seconds until the last ended."""
    start = time.monotonic()
    children = [subprocess.Popen([storm, "storm", str(STORM), "0", "-", "/bin/true", f"{tag}{i}"],
                                 stdout=subprocess.DEVNULL) for i in range(STORMS)]
    if any([child.wait() for child in children]):
        sys.exit("agent_bench: a storm failed")
    return time.monotonic() - start


def count_seen(lines, tag):
    """Distinct commands of a storm whose last argument was seen too."""
    wanted = {f"/bin/true {tag}{i} {n}" for i in range(STORMS) for n in range(STORM)}
    return len(wanted & set(lines))


def measure_storms(build, folder, storm, plain):
    """Storms with nobody watching, with the agent, with forkstat, with auditd; in turns."""
    results = {key: [] for key in ("none", "agent", "agent_cpu", "agent_seen", "forkstat",
                                   "forkstat_cpu", "forkstat_seen", "auditd", "auditd_cpu",
                                   "auditd_seen")}
    execs = STORM * STORMS
    for run in range(RUNS):
        results["none"].append(run_storms(plain, f"n{run}-"))
        agent = Agent(build, tempfile.mkdtemp(dir=folder))
        agent.wait_ready(storm)
        before = schedstat_seconds(agent.process.pid)
        results["agent"].append(run_storms(plain, f"p{run}-"))
        time.sleep(0.5)
        results["agent_cpu"].append((schedstat_seconds(agent.process.pid) - before) / execs * 1e6)
        first = len(agent.alarms)
        run_storms(storm, f"a{run}-")
        agent.settle()
        results["agent_seen"].append(count_seen(alarm_lines(agent, first), f"a{run}-") / execs * 100)
        agent.stop()
        if shutil.which("forkstat"):
            measure_forkstat(folder, plain, run, results, execs)
        measure_auditd(folder, plain, run, results, execs)
    return results


def measure_forkstat(folder, plain, run, results, execs):
    peer = Peer(["forkstat", "-e", "exec", "-l"], folder, f"forkstat{run}")
    before = schedstat_seconds(peer.process.pid)
    results["forkstat"].append(run_storms(plain, f"f{run}-"))
    time.sleep(0.5)
    results["forkstat_cpu"].append((schedstat_seconds(peer.process.pid) - before) / execs * 1e6)
    peer.stop()
    with open(peer.path, encoding="utf-8", errors="replace") as stream:
        lines = [line[line.find("/bin/true"):].strip() for line in stream if "/bin/true" in line]
    results["forkstat_seen"].append(count_seen(lines, f"f{run}-") / execs * 100)


def auditctl(*arguments):
    return subprocess.run(["auditctl", *arguments], check=False, capture_output=True, text=True)


def audit_settings():
    """How the kernel's auditing is set now, as "enabled" and "backlog_limit"; empty without auditing."""
    return dict(line.split(None, 1) for line in auditctl("-s").stdout.splitlines() if " " in line)


def measure_auditd(folder, plain, run, results, execs):
    """auditd with one rule for execve, in a configuration of its own; the rule goes again."""
    if not (shutil.which("auditd") and shutil.which("auditctl")):
        return
    config = tempfile.mkdtemp(dir=folder)
    with open(os.path.join(config, "auditd.conf"), "w", encoding="utf-8") as stream:
        stream.write(f"log_file = {config}/audit.log\nlog_format = RAW\nflush = NONE\n"
                     "max_log_file = 500\nmax_log_file_action = IGNORE\nspace_left = 75\n"
                     "admin_space_left = 50\nfreq = 0\nnum_logs = 2\n")
    os.chmod(config, 0o750)
    before_us = audit_settings()
    daemon = end_with_us(subprocess.Popen(["auditd", "-n", "-c", config], stdout=subprocess.DEVNULL,
                                          stderr=subprocess.DEVNULL))
    time.sleep(1.0)
    rule = ["always,exit", "-F", "arch=b64", "-S", "execve", "-k", "vmescape_bench"]
    if daemon.poll() is not None or not before_us:
        daemon.kill()
        return
    try:
        auditctl("-b", "65536")
        auditctl("-a", *rule)
        before = schedstat_seconds(daemon.pid)
        results["auditd"].append(run_storms(plain, f"d{run}-"))
        time.sleep(1.0)
        results["auditd_cpu"].append((schedstat_seconds(daemon.pid) - before) / execs * 1e6)
    finally:
        auditctl("-d", *rule)
        daemon.send_signal(signal.SIGTERM)
        daemon.wait(timeout=10)
        auditctl("-b", before_us["backlog_limit"])
        auditctl("-e", before_us["enabled"])
    with open(f"{config}/audit.log", encoding="utf-8", errors="replace") as stream:
        lines = []
        for line in stream:
            if "type=EXECVE" in line and 'a0="/bin/true"' in line:
                words = dict(word.split("=", 1) for word in line.split() if "=" in word)
                lines.append(" ".join(words[f"a{i}"].strip('"') for i in range(int(words["argc"]))))
    results["auditd_seen"].append(count_seen(lines, f"d{run}-") / execs * 100)


def measure_idle(build, folder, storm):
    """Percent of one core over a while without load."""
    agent = Agent(build, tempfile.mkdtemp(dir=folder))
    agent.wait_ready(storm)
    time.sleep(1)
    before, start = schedstat_seconds(agent.process.pid), time.monotonic()
    time.sleep(IDLE)
    share = (schedstat_seconds(agent.process.pid) - before) / (time.monotonic() - start) * 100
    agent.stop()
    return share


def measure_memory(build, folder, storm, plain):
    """Resident megabytes with 20,000 processes below a monitored one, then after 100,000 execs more."""
    agent = Agent(build, tempfile.mkdtemp(dir=folder))
    agent.wait_ready(storm)
    holder = subprocess.Popen([storm, "hold", "20000"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    held = int(holder.stdout.readline())
    time.sleep(2)
    full = resident_mb(agent.process.pid)
    after = []
    for _ in range(2):
        run_storm(plain, 50000)
        time.sleep(1)
        after.append(resident_mb(agent.process.pid))
    holder.stdin.close()
    holder.wait()
    agent.stop()
    return held, full, after


def storm_rows(rows, results):
    base = med(results["none"])

    def slow(name):
        return med([(w / n - 1) * 100 for w, n in zip(results[name], results["none"])])

    def peers(suffix, unit):
        return ", ".join(f"{p} {show(med(results[p + suffix]), unit)}" for p in ("forkstat", "auditd"))

    row(rows, "short-lived commands seen with full argv, two storms in parallel",
        show(med(results["agent_seen"]), " %"), peers("_seen", " %"), "100 %",
        min(results["agent_seen"]) == 100, ratio_of(med(results["agent_seen"]), med(results["auditd_seen"])))
    cpu = med(results["agent_cpu"])
    row(rows, "CPU of the watcher for each exec", show(cpu, " us"), peers("_cpu", " us"), "<= 20 us",
        cpu <= 20, ratio_of(cpu, med(results["auditd_cpu"])))
    row(rows, f"slow-down of the storm (alone {base:.2f} s)", show(slow("agent"), " %"),
        f"forkstat {show(slow('forkstat'), ' %')}, auditd {show(slow('auditd'), ' %')}", "<= 3 %",
        slow("agent") <= 3, ratio_of(slow("agent"), slow("auditd")))


def measure(build, folder):
    rows = []
    plain = os.path.join(build, "bench/SpawnStorm")
    storm = os.path.join(folder, MONITORED)
    shutil.copy(plain, storm)
    print("agent_bench: storms", file=sys.stderr)
    raw = measure_storms(build, folder, storm, plain)
    storm_rows(rows, raw)
    print("agent_bench: memory and idle", file=sys.stderr)
    held, full, after = measure_memory(build, folder, storm, plain)
    raw["memory"] = [full, *after]
    row(rows, f"memory with {held} processes, then after 50,000 and 100,000 execs",
        f"{full:.1f} MB, {after[0]:.1f} MB, {after[1]:.1f} MB", "-", "<= 40 MB, flat",
        full <= 40 and after[1] <= after[0] * 1.05)
    raw["idle"] = [measure_idle(build, folder, storm) for _ in range(RUNS)]
    share = med(raw["idle"])
    row(rows, "idle host", f"{share:.3f} % of a core", "-", "<= 0.1 %", share <= 0.1)
    return rows, raw


if __name__ == "__main__":
    sys.exit(main(__doc__, measure))
