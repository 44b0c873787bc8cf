#!/usr/bin/env python3
"""table.py FOLDER: the results of all benchmarks as tables: what was to be reached, how cost grows, latencies."""
import json
import os
import sys

GROWTH = ("TrackedProcesses", "RulesAndEntries")


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
               "ratio": f"{max(ours, found['Ours']) / best:.2f}", "target": target,
               "met": target == "-" or max(ours, found["Ours"]) >= best}


def task_rows(folder, growth):
    for name, speed in medians(load(folder, "command_task.json")).items():
        if name.startswith(GROWTH) == growth:
            yield {"what": f"command task, {name}", "ours": f"{speed / 1e6:.2f} M messages/s",
                   "peer": "-", "ratio": "-", "target": ">= 1 M/s on one core", "met": speed >= 1e6}


def print_table(title, rows):
    print(f"\n{title}\n\n| what | ours | peer | ours / peer | to reach | |\n|---|---|---|---|---|---|")
    for row in rows:
        verdict = "" if row["target"] == "-" else "met" if row["met"] else "**missed**"
        print(f"| {row['what']} | {row['ours']} | {row['peer']} | {row['ratio']} | {row['target']} | "
              f"{verdict} |")


def print_histograms(raw):
    bounds = raw.pop("bounds_ms")
    heads = [f"< {bound}" for bound in bounds[:-1]] + ["more"]
    print("\nLatencies, how many by milliseconds\n\n| what | " + " | ".join(heads) + " |")
    print("|---|" + "---|" * len(heads))
    for what, counts in raw.items():
        print(f"| {what} | " + " | ".join(map(str, counts)) + " |")


def main():
    folder = sys.argv[1]
    agent, latency, files, net, growth = (
        load(folder, f"{name}.json") for name in ("agent", "latency", "file", "net", "growth"))
    rows = [*agent["rows"], *latency["rows"], *files["rows"], *net["rows"], *inbox_rows(folder),
            *task_rows(folder, False)]
    print_table("What it has to reach", rows)
    growing = [*growth["rows"], *task_rows(folder, True)]
    print_table("How cost grows", growing)
    print_histograms(latency["raw"])
    with open(os.path.join(folder, "table.json"), "w", encoding="utf-8") as stream:
        json.dump({"reach": rows, "growth": growing}, stream, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
