#!/usr/bin/env python3
"""agent_bench.py BUILD [--json FILE]: what the whole agent costs and how fast it is.

Each figure is measured beside its peer, in turns, in this one run, and printed as a row of the table.
Needs root, and forkstat and auditd for their columns.
"""
import argparse
import json
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

RUNS = 5
STORM = 5000
STORMS = 2
TICK = os.sysconf("SC_CLK_TCK")
MONITORED = "qemu-bench"
COMMAND_POLICY = {"qemu_cmd_detect_feature": {
    "monitor_list": [{"virtcmd": MONITORED, "action": True, "cmdlist": []}]}}


def cpu_seconds(pid):
    """User and system time of a process, all threads (proc(5), fields 14 and 15)."""
    with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as stream:
        fields = stream.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def schedstat_seconds(pid):
    """Processor time of all threads in nanosecond resolution (sched-stats documentation)."""
    total = 0
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/schedstat", encoding="utf-8") as stream:
            total += int(stream.read().split()[0])
    return total / 1e9


def resident_mb(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as stream:
        for line in stream:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024
    return 0.0


class Agent:
    """A running agent whose alarms are read as they come."""

    def __init__(self, build, folder, contents=None, log_level="error", environment=None):
        policies = os.path.join(folder, "policies")
        os.makedirs(policies, exist_ok=True)
        for feature, content in (contents or COMMAND_POLICY).items():
            policy = {"module_name": "vmescape_module", "enabled": True, "hash": "bench",
                      "content": content}
            with open(os.path.join(policies, feature + ".json"), "w", encoding="utf-8") as stream:
                json.dump(policy, stream)
        self.log = open(os.path.join(folder, "agent.log"), "w+b")
        self.process = subprocess.Popen(
            [os.path.join(build, "bin/vmescape-agent"), "run", "--policies", policies, "--format",
             "json", "--log-level", log_level],
            stdout=subprocess.PIPE, stderr=self.log, env=environment)
        self.alarms = []  # (arrival in ns, line)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.alarms.append((time.monotonic_ns(), line))

    def wait_ready(self, storm):
        """The agent is ready when a command below the monitored name raises an alarm."""
        deadline = time.monotonic() + 30
        while not self.alarms:
            if time.monotonic() > deadline or self.process.poll() is not None:
                sys.exit("the agent did not get ready:\n" + self.read_log())
            run_storm(storm, 1)
        self.settle()

    def read_log(self):
        with open(self.log.name, encoding="utf-8", errors="replace") as stream:
            return stream.read()

    def wait_for_log(self, text):
        deadline = time.monotonic() + 30
        while text not in self.read_log():
            if time.monotonic() > deadline or self.process.poll() is not None:
                sys.exit("the agent did not get ready:\n" + self.read_log())
            time.sleep(0.01)

    def stop_and_read_log(self):
        self.stop()
        return self.read_log()

    def settle(self):
        """Waits until no alarm has come for a while."""
        count = -1
        while count != len(self.alarms):
            count = len(self.alarms)
            time.sleep(0.3)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        code = self.process.wait(timeout=30)
        self.reader.join()
        self.log.close()
        return code


class Peer:
    """A program that watches execs and writes what it sees to a file."""

    def __init__(self, command, folder, name):
        self.path = os.path.join(folder, name + ".out")
        self.stream = open(self.path, "wb")
        self.process = subprocess.Popen(command, stdout=self.stream, stderr=subprocess.DEVNULL)
        time.sleep(1.0)

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.stream.close()


def run_storm(storm, count, rate=0, times="-", tag="x", program="/bin/true"):
    """One storm to its end; the seconds that it took."""
    return float(subprocess.run([storm, "storm", str(count), str(rate), times, program, tag],
                                check=True, capture_output=True, text=True).stdout)


def run_storms(storm, tag):
    """Storms side by side; the seconds until the last ended."""
    start = time.monotonic()
    children = [subprocess.Popen([storm, "storm", str(STORM), "0", "-", "/bin/true", f"{tag}{i}"],
                                 stdout=subprocess.DEVNULL) for i in range(STORMS)]
    for child in children:
        child.wait()
    return time.monotonic() - start


def count_seen(lines, tag):
    """Distinct commands of a storm whose last argument was seen too."""
    wanted = {f"/bin/true {tag}{i} {n}" for i in range(STORMS) for n in range(STORM)}
    return len(wanted & set(lines))


def alarm_lines(agent, start):
    return [json.loads(line)["process_info"][0]["process_cmdline"]
            for _, line in agent.alarms[start:]]


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
    daemon = subprocess.Popen(["auditd", "-n", "-c", config], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    time.sleep(1.0)
    rule = ["always,exit", "-F", "arch=b64", "-S", "execve", "-k", "vmescape_bench"]
    if daemon.poll() is not None or subprocess.run(["auditctl", "-b", "65536"],
                                                   capture_output=True, check=False).returncode:
        daemon.kill()
        return
    subprocess.run(["auditctl", "-a", *rule], check=False, capture_output=True)
    try:
        before = schedstat_seconds(daemon.pid)
        results["auditd"].append(run_storms(plain, f"d{run}-"))
        time.sleep(1.0)
        results["auditd_cpu"].append((schedstat_seconds(daemon.pid) - before) / execs * 1e6)
    finally:
        subprocess.run(["auditctl", "-d", *rule], check=False, capture_output=True)
        daemon.send_signal(signal.SIGTERM)
        daemon.wait(timeout=10)
    with open(f"{config}/audit.log", encoding="utf-8", errors="replace") as stream:
        lines = []
        for line in stream:
            if "type=EXECVE" in line and 'a0="/bin/true"' in line:
                words = dict(word.split("=", 1) for word in line.split() if "=" in word)
                lines.append(" ".join(words[f"a{i}"].strip('"') for i in range(int(words["argc"]))))
    results["auditd_seen"].append(count_seen(lines, f"d{run}-") / execs * 100)


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


def measure_latency(build, folder, storm, plain, rate):
    """Milliseconds from just before a spawn to its alarm's arrival at the reader of the agent's output."""
    agent = Agent(build, tempfile.mkdtemp(dir=folder))
    agent.wait_ready(storm)
    noise = None
    if rate:
        noise = subprocess.Popen([plain, "storm", "1000000", str(rate), "-", "/bin/true", "noise"],
                                 stdout=subprocess.DEVNULL)
    first = len(agent.alarms)
    times = os.path.join(folder, "times")
    run_storm(storm, 1000, 100, times, "latency")
    agent.settle()
    if noise:
        noise.send_signal(signal.SIGKILL)
        noise.wait()
    spawned = {}
    with open(times, encoding="utf-8") as stream:
        for line in stream:
            pid, when = line.split()
            spawned[int(pid)] = int(when)
    latencies = []
    for arrival, line in agent.alarms[first:]:
        info = json.loads(line)["process_info"][0]
        if info["process_cmdline"].startswith("/bin/true latency"):
            latencies.append((arrival - spawned[info["process_pid"]]) / 1e6)
    agent.stop()
    if len(latencies) != 1000:
        print(f"agent_bench: {len(latencies)} of 1000 alarms arrived", file=sys.stderr)
    return latencies


def measure_idle(build, folder, storm):
    """Percent of one core over ten seconds without load."""
    agent = Agent(build, tempfile.mkdtemp(dir=folder))
    agent.wait_ready(storm)
    time.sleep(1)
    before, start = schedstat_seconds(agent.process.pid), time.monotonic()
    time.sleep(10)
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


def row(rows, what, ours, peer, target, met):
    rows.append({"what": what, "ours": ours, "peer": peer, "target": target, "met": bool(met)})


def med(values):
    return statistics.median(values) if values else None


def show(value, unit):
    return "-" if value is None else f"{value:.3g}{unit}"


def storm_rows(rows, results):
    base = med(results["none"])

    def slow(name):
        pairs = [(w / n - 1) * 100 for w, n in zip(results[name], results["none"])]
        return med(pairs)

    peers = ("forkstat", "auditd")
    row(rows, "short-lived commands seen with full argv, two storms in parallel",
        show(med(results["agent_seen"]), " %"),
        ", ".join(f"{p} {show(med(results[p + '_seen']), ' %')}" for p in peers), "100 %",
        min(results["agent_seen"]) == 100)
    row(rows, "CPU of the watcher for each exec", show(med(results["agent_cpu"]), " us"),
        ", ".join(f"{p} {show(med(results[p + '_cpu']), ' us')}" for p in peers), "<= 20 us",
        med(results["agent_cpu"]) <= 20)
    row(rows, f"slow-down of the storm (alone {base:.2f} s)", show(slow("agent"), " %"),
        ", ".join(f"{p} {show(slow(p), ' %')}" for p in peers), "<= 3 %", slow("agent") <= 3)


def latency_rows(rows, name, values):
    p50, p99, worst = percentile(values, 0.5), percentile(values, 0.99), max(values)
    row(rows, f"exec to alarm written, {name}",
        f"p50 {p50:.2f} ms, p99 {p99:.2f} ms, worst {worst:.2f} ms", "-", "p50 <= 2 ms, p99 <= 10 ms",
        p50 <= 2 and p99 <= 10)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build")
    parser.add_argument("--json")
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    plain = os.path.join(build, "bench/SpawnStorm")
    rows = []
    with tempfile.TemporaryDirectory() as folder:
        storm = os.path.join(folder, MONITORED)
        shutil.copy(plain, storm)
        print("agent_bench: storms", file=sys.stderr)
        storm_rows(rows, measure_storms(build, folder, storm, plain))
        print("agent_bench: latency", file=sys.stderr)
        latency_rows(rows, "idle", measure_latency(build, folder, storm, plain, 0))
        latency_rows(rows, "under 1000 exec/s", measure_latency(build, folder, storm, plain, 1000))
        print("agent_bench: memory and idle", file=sys.stderr)
        held, full, after = measure_memory(build, folder, storm, plain)
        row(rows, f"memory with {held} processes, then after 50,000 and 100,000 execs",
            f"{full:.1f} MB, {after[0]:.1f} MB, {after[1]:.1f} MB", "-", "<= 40 MB, flat",
            full <= 40 and after[1] <= after[0] * 1.05)
        share = measure_idle(build, folder, storm)
        row(rows, "idle host", f"{share:.3f} % of a core", "-", "<= 0.1 %", share <= 0.1)
    for one in rows:
        print(f"{one['what']} | {one['ours']} | {one['peer']} | {one['target']} | "
              f"{'met' if one['met'] else 'MISSED'}")
    if options.json:
        with open(options.json, "w", encoding="utf-8") as stream:
            json.dump(rows, stream, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
