#!/usr/bin/env python3
"""net_bench.py BUILD [--json FILE]: what the socket table costs, beside ss.

On a host with 200 and with 2,000 processes of 200 descriptors each. The table and ss are read in turns,
in this one run. Needs root.
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

from agent_bench import Agent, med, row, schedstat_seconds

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
    """Milliseconds of one reading, by source of holders; each the best of three, and the rows."""
    done = subprocess.run([os.path.join(build, "bench/SocketTableTimes"), "3"], check=True,
                          capture_output=True, text=True)
    times, rows = {}, 0
    for line in done.stdout.splitlines():
        words = line.split()
        times[words[0]] = min(float(word) for word in words[1:-2])
        rows = int(words[-1])
    return times, rows


def run_ss():
    start = time.monotonic()
    lines = subprocess.run(["ss", "-tulpnH"], check=True, capture_output=True, text=True).stdout
    return (time.monotonic() - start) * 1e3, len(lines.splitlines())


def measure(build, processes, sockets):
    results = {"bpf": [], "proc": [], "ss": []}
    with Host(build, processes, sockets):
        for _ in range(RUNS):
            times, rows = read_table(build)
            for source, milliseconds in times.items():
                results[source].append(milliseconds)
            milliseconds, peer_rows = run_ss()
            results["ss"].append(milliseconds)
    return {name: med(values) for name, values in results.items()}, rows, peer_rows


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


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build")
    parser.add_argument("--json")
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    rows = []
    print("net_bench: tables", file=sys.stderr)
    small, found, peer_found = measure(build, *SMALL)
    large, _, _ = measure(build, *LARGE)
    row(rows, f"full socket table, {SMALL[0]} processes of {DESCRIPTORS} descriptors, {found} sockets",
        f"{small['bpf']:.1f} ms (/proc: {small['proc']:.1f} ms)", f"ss -tulpnH {small['ss']:.1f} ms, {peer_found} rows",
        "<= 20 ms, <= 1/4 of ss", small["bpf"] <= 20 and small["bpf"] <= small["ss"] / 4)
    growth = large["bpf"] / small["bpf"]
    row(rows, f"the same with {LARGE[0]} processes", f"{large['bpf']:.1f} ms, {growth:.1f} x", f"ss {large['ss']:.1f} ms",
        "linear: <= 12 x", growth <= 12)
    print("net_bench: polling (a minute)", file=sys.stderr)
    with tempfile.TemporaryDirectory() as folder:
        share = measure_polling(build, folder)
    row(rows, f"looking at the ports of {SMALL[0]} processes every ten seconds", f"{share:.3f} % of a core", "-",
        "< 0.2 %", share < 0.2)
    for one in rows:
        print(f"{one['what']} | {one['ours']} | {one['peer']} | {one['target']} | "
              f"{'met' if one['met'] else 'MISSED'}")
    if options.json:
        with open(options.json, "w", encoding="utf-8") as stream:
            json.dump(rows, stream, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
