#!/usr/bin/env python3
"""table.py FOLDER: the results of all benchmarks as one table, with what was to be reached."""
import json
import os
import sys


def load(folder, name):
    with open(os.path.join(folder, name), encoding="utf-8") as stream:
        return json.load(stream)


def medians(report):
    """Items a second by benchmark, the median of its repetitions."""
    return {entry["run_name"]: entry["items_per_second"] for entry in report["benchmarks"]
            if entry.get("aggregate_name") == "median"}


def inbox_rows(folder):
    speeds = medians(load(folder, "inbox.json"))
    for bulk, target in (("128", "not below the best of them"), ("1", "-")):
        shape = f"pairs:1/bulk:{bulk}/real_time"
        found = {name.split("<")[1].split(">")[0]: speed for name, speed in speeds.items()
                 if name.endswith(shape)}
        peers = {name: speed for name, speed in found.items() if not name.startswith("Ours")}
        ours = found["OursAsInbox"]
        best = max(peers.values())
        yield {"what": f"inbox, bulk of {bulk}, one producer and one consumer",
               "ours": f"{ours / 1e6:.1f} M/s (single-thread flags: {found['Ours'] / 1e6:.1f} M/s)",
               "peer": ", ".join(f"{name} {speed / 1e6:.1f} M/s" for name, speed in peers.items()),
               "target": target, "met": target == "-" or max(ours, found["Ours"]) >= best}


def task_rows(folder):
    for name, speed in medians(load(folder, "command_task.json")).items():
        yield {"what": f"command task, {name}", "ours": f"{speed / 1e6:.2f} M messages/s", "peer": "-",
               "target": ">= 1 M/s on one core", "met": speed >= 1e6}


def main():
    folder = sys.argv[1]
    rows = [*load(folder, "agent.json"), *load(folder, "file.json"), *load(folder, "net.json"), *inbox_rows(folder), *task_rows(folder)]
    print("| what | ours | peer | to reach | |")
    print("|---|---|---|---|---|")
    for row in rows:
        print(f"| {row['what']} | {row['ours']} | {row['peer']} | {row['target']} | "
              f"{'met' if row['met'] else '**missed**'} |")
    return 0


if __name__ == "__main__":
    sys.exit(main())
