#!/usr/bin/env python3
"""soak.py BUILD [SECONDS] [--lapse FACTOR]: does the agent grow?

A mixed load for a given time: commands, accesses and ports of a monitored program and of others,
directories that come, move and go, policies that change. After each round, when the agent is quiet, its
memory, descriptors, threads, file marks, watches, BPF maps and programs are counted. What the last third
of the time has more of than the second third has leaked. Once the agent is stopped for a while in the midst
of the load and has to catch up. With --lapse its clock runs faster: 1,000 lets a week of its cleaning pass
in ten minutes. Needs root.
"""
import argparse
import itertools
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from harness import MONITORED, Agent, end_on_signals, med, resident_mb, schedstat_seconds

DIRECTORIES = 200
POLICY_EVERY = 5  # rounds
PAUSE_AFTER = 2  # rounds: in the first third, which is not compared
MEMORY_SHARE = 1.05  # a twentieth, and a megabyte, is the allocator's to move in
MEMORY_MB = 1.0
ROUNDS_NEEDED = 9


def policies(folders):
    rules = {"virtmonitor": MONITORED}
    return {
        "qemu_cmd_detect_feature": {"monitor_list": [
            {"virtcmd": MONITORED, "action": True, "cmdlist": []}]},
        "qemu_file_detect_feature": {"action": True, "senstive_dirs": folders,
                                     "monitor_list": [dict(rules, filelist=[])]},
        "qemu_port_detect_feature": {"monitor_list": [dict(rules, portlist=[])]},
    }


def count(pid):
    """What the agent holds now."""
    held = {"memory": resident_mb(pid), "threads": len(os.listdir(f"/proc/{pid}/task")),
            "descriptors": 0, "marks": 0, "watches": 0, "maps": 0, "programs": 0}
    for descriptor in os.listdir(f"/proc/{pid}/fd"):
        try:
            target = os.readlink(f"/proc/{pid}/fd/{descriptor}")
            with open(f"/proc/{pid}/fdinfo/{descriptor}", encoding="utf-8") as stream:
                lines = stream.read().splitlines()
        except FileNotFoundError:
            continue
        held["descriptors"] += 1
        held["maps"] += "bpf-map" in target
        held["programs"] += "bpf-prog" in target
        held["marks"] += sum(line.startswith("fanotify ino") for line in lines)
        held["watches"] += sum(line.startswith("inotify wd") for line in lines)
    return held


def settle(pid):
    """Waits until the agent has nothing left to do."""
    last = -1.0
    while schedstat_seconds(pid) - last > 0.005:
        last = schedstat_seconds(pid)
        time.sleep(0.3)


def wait_for_marks(agent, marks):
    """Waits until exactly what the policy names is watched."""
    deadline = time.monotonic() + 30
    while count(agent.process.pid)["marks"] != marks:
        if agent.process.poll() is not None:
            sys.exit("soak: the agent ended:\n" + agent.read_log()[-4000:])
        if time.monotonic() > deadline:
            sys.exit(f"soak: {count(agent.process.pid)['marks']} directories are watched, expected {marks}")
        time.sleep(0.1)


class Load:
    """One round after the other of what a busy host and a guest gone wild do."""

    def __init__(self, build, folder):
        self.storm = os.path.join(build, "bench/SpawnStorm")
        self.opens = os.path.join(build, "bench/OpenStorm")
        self.sockets = os.path.join(build, "bench/SocketHost")
        self.folder = folder
        self.roots = [os.path.join(folder, name) for name in ("one", "two", "three")]
        self.guest = {}
        for program in (self.storm, self.opens, self.sockets):
            place = os.path.join(folder, os.path.basename(program))
            os.mkdir(place)
            self.guest[program] = os.path.join(place, MONITORED)
            shutil.copy(program, self.guest[program])
        for root in self.roots:
            self.run(self.opens, "make", root, DIRECTORIES)

    def run(self, program, *arguments):
        subprocess.run([program, *map(str, arguments)], check=True, stdout=subprocess.DEVNULL)

    def commands(self):
        self.run(self.storm, "storm", 500, 0, "-", "/bin/true", "x")
        self.run(self.guest[self.storm], "storm", 200, 0, "-", "/bin/true", "x")

    def files(self):
        root = self.roots[0]
        self.run(self.opens, "storm", root, DIRECTORIES, 20000)
        self.run(self.guest[self.opens], "touch", root, DIRECTORIES, 200, 1000,
                 os.path.join(self.folder, "times"))

    def directories(self):
        root = self.roots[1]
        for i in range(30):
            os.makedirs(f"{root}/new{i}/below/deep")
        for i in range(0, 30, 2):
            os.rename(f"{root}/new{i}", f"{root}/new{i + 1}/moved")
        for i in range(1, 30, 2):
            shutil.rmtree(f"{root}/new{i}")

    def ports(self):
        host = subprocess.Popen([self.guest[self.sockets], "5", "20", "20"], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE)
        host.stdout.readline()
        time.sleep(1)
        host.stdin.close()
        host.wait()
        host.stdout.close()

    def round(self):
        self.commands()
        self.files()
        self.directories()
        self.ports()


def write_policy(agent_folder, folders):
    content = policies(folders)["qemu_file_detect_feature"]
    path = os.path.join(agent_folder, "policies/qemu_file_detect_feature.json")
    with open(path + "~", "w", encoding="utf-8") as stream:
        json.dump({"module_name": "vmescape_module", "enabled": True, "hash": "soak",
                   "content": content}, stream)
    os.rename(path + "~", path)


def pause(agent, load, seconds):
    """The load goes on while the agent stands still. Afterwards it has to see new commands again."""
    agent.process.send_signal(signal.SIGSTOP)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        load.round()
    agent.process.send_signal(signal.SIGCONT)
    agent.settle()
    start, seen = time.monotonic(), len(agent.alarms)
    while len(agent.alarms) == seen:
        if time.monotonic() > start + 30:
            sys.exit("soak: no alarm comes after the agent stood still:\n" + agent.read_log()[-4000:])
        load.commands()
    print(f"soak: {time.monotonic() - start:.1f} s after it stood still for {seconds} s it alarms again",
          file=sys.stderr)


def soak(agent, load, agent_folder, seconds, standstill):
    """The samples of all rounds. Each sees the same directories watched."""
    samples = []
    first, second, third = load.roots
    end = time.monotonic() + seconds
    for number in itertools.count(1):
        load.round()
        if number % POLICY_EVERY == 0:
            write_policy(agent_folder, [third])
            wait_for_marks(agent, DIRECTORIES + 1)
            load.files()
            write_policy(agent_folder, [first, second])
        if number == PAUSE_AFTER and standstill:
            pause(agent, load, standstill)
        wait_for_marks(agent, 2 * (DIRECTORIES + 1))
        settle(agent.process.pid)
        samples.append(count(agent.process.pid))
        left = end - time.monotonic()
        print(f"soak: round {number}, {max(0, left):.0f} s left: " +
              ", ".join(f"{key} {value:.1f}" if key == "memory" else f"{key} {value}"
                        for key, value in samples[-1].items()), file=sys.stderr)
        if left <= 0:
            return samples


def judge(samples):
    """One row for each thing held: the second third, the last, and whether that is growth."""
    third = len(samples) // 3
    rows = []
    for key in samples[0]:
        before = [sample[key] for sample in samples[third:2 * third]]
        after = [sample[key] for sample in samples[2 * third:]]
        if key == "memory":
            grown = med(after) > med(before) * MEMORY_SHARE + MEMORY_MB
            rows.append((key, f"{med(before):.1f} MB", f"{med(after):.1f} MB", grown))
        else:
            rows.append((key, str(max(before)), str(max(after)), max(after) > max(before)))
    return rows


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build")
    parser.add_argument("seconds", nargs="?", type=int, default=3600)
    parser.add_argument("--lapse", type=int, default=1, metavar="FACTOR")
    parser.add_argument("--pause", type=int, default=60, metavar="SECONDS", help="0: never")
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    environment = dict(os.environ)
    end_on_signals()
    clock = os.path.join(build, "bin/libMovedClock.so")
    if not os.path.exists(clock):
        sys.exit(f"soak: {clock} is missing")
    if options.lapse > 1:
        environment.update(LD_PRELOAD=clock,
                           CLOCK_SPEED=str(options.lapse))
    with tempfile.TemporaryDirectory() as folder:
        load = Load(build, folder)
        agent_folder = os.path.join(folder, "agent")
        os.mkdir(agent_folder)
        agent = Agent(build, agent_folder, policies(load.roots[:2]), "information", environment)
        agent.wait_for_log(f"{2 * (DIRECTORIES + 1)} directories are watched.")
        samples = soak(agent, load, agent_folder, options.seconds, options.pause)
        alarms = len(agent.alarms)
        status = agent.process.poll()
        log = agent.stop_and_read_log()
    if len(samples) < ROUNDS_NEEDED:
        sys.exit(f"soak: {len(samples)} rounds are too few to judge by, give it more time")
    rows = judge(samples)
    print(f"{len(samples)} rounds in {options.seconds} s, {alarms} alarms, clock {options.lapse} times")
    print("| held | second third | last third | |\n|---|---|---|---|")
    for key, before, after, grown in rows:
        print(f"| {key} | {before} | {after} | {'**grown**' if grown else 'flat'} |")
    for line in log.splitlines():
        if " events: " in line or " messages: " in line or "Output(" in line:
            print(line.split(": ", 1)[-1])
    return 1 if status is not None or any(row[3] for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
