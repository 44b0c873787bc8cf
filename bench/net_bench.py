#!/usr/bin/env python3
"""net_bench.py BUILD [--json FILE]: what the socket table costs, beside ss and lsof.

On a host with 200 and with 2,000 processes of 200 descriptors each. The table, ss and lsof are read in
turns, in this one run. Needs root.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import time

from harness import Agent, main, med, ratio_of, row, schedstat_seconds, show

RUNS = 7
DESCRIPTORS = 200
SMALL = (200, 600)  # processes, sockets
LARGE = (2000, 6000)
POLLING = 60  # seconds


class Host:
    """Processes with open sockets, for as long as its block lasts."""

    def __init__(self, build, processes, sockets):
        self.command = [os.path.join(build, "bench/SocketHost"), str(processes), str(DESCRIPTORS), str(sockets)]

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if self.process.stdout.readline() != b"ready\n":
            sys.exit("the processes could not be started")
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait()


def read_table(build):
    """Milliseconds of a reading by source of holders, and the rows. Of four readings in one process, as the
    agent reads again and again, the median of the last three."""
    done = subprocess.run([os.path.join(build, "bench/SocketTableTimes"), "4"], check=True,
                          capture_output=True, text=True)
    times, rows = {}, 0
    for line in done.stdout.splitlines():
        words = line.split()
        times[words[0]] = med([float(word) for word in words[2:-2]])
        rows = int(words[-1])
    return times, rows


def run_peer(*command, check=True):
    start = time.monotonic()
    lines = subprocess.run(command, check=check, capture_output=True, text=True).stdout
    return (time.monotonic() - start) * 1e3, len(lines.splitlines())


def measure_tables(build, processes, sockets, runs):
    """Milliseconds by source, one of each turn, and the rows of ours and of ss."""
    results = {"bpf": [], "proc": [], "ss": [], "lsof": []}
    with Host(build, processes, sockets):
        for _ in range(runs):
            times, rows = read_table(build)
            for source, milliseconds in times.items():
                results[source].append(milliseconds)
            milliseconds, peer_rows = run_peer("ss", "-tulpnH")
            results["ss"].append(milliseconds)
            if shutil.which("lsof"):
                # It ends with 1 where it could not name everything.
                results["lsof"].append(run_peer("lsof", "-nP", "-i", check=False)[0])
    return results, rows, peer_rows


def measure_polling(build, folder):
    """Percent of one core for looking at the small host every ten seconds."""
    contents = {"qemu_port_detect_feature": {"monitor_list": [{"virtmonitor": "qemu-bench", "portlist": []}]}}
    with Host(build, *SMALL):
        agent = Agent(build, tempfile.mkdtemp(dir=folder), contents, "information")
        agent.wait_for_log(" is running, ")
        time.sleep(2)
        before, start = schedstat_seconds(agent.process.pid), time.monotonic()
        time.sleep(POLLING)
        share = (schedstat_seconds(agent.process.pid) - before) / (time.monotonic() - start) * 100
        agent.stop()
    return share


def measure(build, folder):
    rows = []
    print("net_bench: tables", file=sys.stderr)
    small, found, peer_found = measure_tables(build, *SMALL, RUNS)
    large, _, _ = measure_tables(build, *LARGE, RUNS)
    ours, ss = med(small["bpf"]), med(small["ss"])
    row(rows, f"full socket table, {SMALL[0]} processes of {DESCRIPTORS} descriptors, {found} sockets",
        f"{ours:.1f} ms (/proc: {med(small['proc']):.1f} ms)",
        f"ss -tulpnH {ss:.1f} ms, {peer_found} rows; lsof -i {show(med(small['lsof']), ' ms')}",
        "<= 20 ms, <= 1/4 of ss", ours <= 20 and ours <= ss / 4, ratio_of(ours, ss))
    growth = med(large["bpf"]) / ours
    row(rows, f"the same with {LARGE[0]} processes", f"{med(large['bpf']):.1f} ms, {growth:.1f} x",
        f"ss {med(large['ss']):.1f} ms; lsof -i {show(med(large['lsof']), ' ms')}",
        "linear: <= 12 x", growth <= 12, ratio_of(med(large["bpf"]), med(large["ss"])))
    print(f"net_bench: polling ({POLLING} s)", file=sys.stderr)
    share = measure_polling(build, folder)
    row(rows, f"looking at the ports of {SMALL[0]} processes every ten seconds",
        f"{share:.3f} % of a core", "-", "< 0.2 %", share < 0.2)
    return rows, {"small": small, "large": large, "polling": share}


if __name__ == "__main__":
    sys.exit(main(__doc__, measure))
