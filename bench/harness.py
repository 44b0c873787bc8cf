"""What all benchmarks of the agent share: the agent as a child, its peers, figures and rows.

A row of the table says what was measured, our figure, the peer's, the ratio of both, what was to be
reached, and whether it was. Raw values go to the JSON file beside the rows.
"""
import argparse
import atexit
import json
import os
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

MONITORED = "qemu-bench"
COMMAND_POLICY = {"qemu_cmd_detect_feature": {
    "monitor_list": [{"virtcmd": MONITORED, "action": True, "cmdlist": []}]}}


def end_with_us(process):
    """Takes a child along when this program ends early."""
    def end():
        if process.poll() is None:
            process.kill()
            process.wait()
    atexit.register(end)
    return process


def end_on_signals():
    """Lets what has to be undone be undone when somebody ends this program."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("ended by SIGTERM"))


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
        # Not the host's own configuration, nor its socket.
        config = os.path.join(folder, "agent.json")
        with open(config, "w", encoding="utf-8") as stream:
            json.dump({"status": {"socket": os.path.join(folder, "socket")}}, stream)
        self.log = open(os.path.join(folder, "agent.log"), "w+b")
        self.process = end_with_us(subprocess.Popen(
            [os.path.join(build, "bin/vmescape-agent"), "run", "--config", config, "--policies", policies,
             "--format", "json", "--log-level", log_level],
            stdout=subprocess.PIPE, stderr=self.log, env=environment))
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
    """A program that watches and writes what it sees to a file."""

    def __init__(self, command, folder, name, cwd=None):
        self.path = os.path.join(folder, name + ".out")
        self.stream = open(self.path, "wb")
        self.process = end_with_us(subprocess.Popen(command, stdout=self.stream,
                                                    stderr=subprocess.DEVNULL, cwd=cwd))
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


def alarm_lines(agent, start):
    """The command lines of the alarms from one on."""
    return [json.loads(line)["process_info"][0]["process_cmdline"]
            for _, line in agent.alarms[start:]]


def quiet(pid):
    """Waits until a program has caught up: it uses no more processor time."""
    last = -1.0
    while schedstat_seconds(pid) - last > 0.002:
        last = schedstat_seconds(pid)
        time.sleep(0.2)


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


def med(values):
    return statistics.median(values) if values else None


def show(value, unit):
    return "-" if value is None else f"{value:.3g}{unit}"


def row(rows, what, ours, peer, target, met, ratio="-"):
    rows.append({"what": what, "ours": ours, "peer": peer, "ratio": ratio, "target": target,
                 "met": bool(met)})


def ratio_of(ours, peer):
    """How many times the peer's figure ours is."""
    return "-" if ours is None or peer is None or min(ours, peer) <= 0 else f"{ours / peer:.2f}"


def main(description, measure):
    """Runs measure(build, folder), which gives rows and raw values, and writes both."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("build")
    parser.add_argument("--json")
    options = parser.parse_args()
    end_on_signals()
    with tempfile.TemporaryDirectory() as folder:
        rows, raw = measure(os.path.abspath(options.build), folder)
    for one in rows:
        print(f"{one['what']} | {one['ours']} | {one['peer']} | {one['ratio']} | {one['target']} | "
              f"{'met' if one['met'] else 'MISSED'}")
    if options.json:
        with open(options.json, "w", encoding="utf-8") as stream:
            json.dump({"rows": rows, "raw": raw}, stream, indent=1)
    return 0
