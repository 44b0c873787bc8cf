#!/usr/bin/env python3
"""demo.py [BUILD]: runs the agent against a real QEMU and shows its alarms.

QEMU's monitor stands for the way out of the guest: what it makes QEMU start, a break-out could start.
Fails when one of the alarms does not come. Needs root and qemu-system-x86_64.
"""
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

QEMU = "qemu-system-x86_64"
VM = "demo-vm"
PATIENCE = 20.0  # seconds that one step may take

# A deny list, so that a shell is told apart from a command that is not allowed.
POLICY = {
    "module_name": "vmescape_module",
    "enabled": True,
    "hash": "demo",
    "content": {"monitor_list": [{"virtcmd": QEMU, "action": False, "cmdlist": ["/usr/bin/id"]}]},
}


class DemoError(Exception):
    """What went wrong, in words for the person who watches."""


def wait_until(condition, what):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise DemoError(what)
        time.sleep(0.02)


class Child:
    """A program that is ended, whatever happens, when its block is left."""

    def __init__(self, command, **streams):
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **streams)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        """Asks the program to end, insists after a while, and returns its exit status."""
        if self.process.poll() is None:
            self.process.terminate()
        try:
            return self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            return self.process.wait()

    def running(self):
        return self.process.poll() is None


class Agent(Child):
    """The agent, with alarms as text on the screen and as JSON in a file."""

    def __init__(self, build, folder):
        policies = os.path.join(folder, "policies")
        os.mkdir(policies)
        with open(os.path.join(policies, "qemu_cmd_detect_feature.json"), "w", encoding="utf-8") as stream:
            json.dump(POLICY, stream)
        self.alarm_file = os.path.join(folder, "alarms.jsonl")
        self.log_file = os.path.join(folder, "agent.log")
        with open(self.log_file, "wb") as log:
            super().__init__(
                [os.path.join(build, "bin/vmescape-agent"), "run", "--policies", policies,
                 "--output", f"text:stdout,json:file:{self.alarm_file}"], stderr=log)

    def log(self):
        with open(self.log_file, encoding="utf-8", errors="replace") as stream:
            return stream.read()

    def wait_ready(self):
        wait_until(lambda: " is running, " in self.log() or not self.running(), "the agent does not get ready")
        if not self.running():
            raise DemoError("the agent did not start")

    def alarms(self):
        with open(self.alarm_file, encoding="utf-8") as stream:
            return [json.loads(line) for line in stream if line.endswith("\n")]

    def has_alarm(self, mode, command):
        return any(alarm["forensic_info"]["escape_mode"] == mode
                   and alarm["resource_info"]["vm_name"] == VM
                   and alarm["process_info"][0]["process_cmdline"].startswith(command)
                   for alarm in self.alarms())


class VirtualMachine(Child):
    """A QEMU without a guest: emulated, headless, stopped before its first instruction."""

    def __init__(self, folder):
        self.monitor = os.path.join(folder, "monitor")
        self.log_file = os.path.join(folder, "qemu.log")
        with open(self.log_file, "wb") as log:
            super().__init__(
                [QEMU, "-name", f"guest={VM},debug-threads=on", "-accel", "tcg", "-m", "32", "-nodefaults",
                 "-display", "none", "-serial", "none", "-S", "-monitor", f"unix:{self.monitor},server,nowait"],
                stdout=log, stderr=log)

    def command(self, text):
        """Types one line into the monitor, once it listens."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as link:
            link.settimeout(PATIENCE)
            wait_until(lambda: self._connect(link), "QEMU's monitor does not answer")
            self._read_prompt(link)
            link.sendall(text.encode() + b"\n")
            self._read_prompt(link)

    def _connect(self, link):
        if not self.running():
            with open(self.log_file, encoding="utf-8", errors="replace") as stream:
                raise DemoError(f"{QEMU} ended: {stream.read().strip()}")
        try:
            link.connect(self.monitor)
            return True
        except OSError:
            return False

    @staticmethod
    def _read_prompt(link):
        seen = b""
        while not seen.endswith(b"(qemu) "):
            piece = link.recv(4096)
            if not piece:
                break
            seen += piece


def show(agent, folder, title, command, mode, expected):
    """One virtual machine, one command, one alarm."""
    print(f"\n== {title}: migrate \"exec:{command}\"", flush=True)
    with VirtualMachine(folder) as machine:
        machine.command(f'migrate "exec:{command}"')
        wait_until(lambda: agent.has_alarm(mode, expected) or not agent.running(),
                   f"the alarm \"{mode}\" of {VM} did not come")
        if not agent.running():
            raise DemoError("the agent ended by itself")


def run(build, folder):
    payload = os.path.join(folder, "payload")
    shutil.copy("/usr/bin/true", payload)
    with Agent(build, folder) as agent:
        try:
            agent.wait_ready()
            show(agent, folder, "a shell", "sh -c bash", "shell", "/bin/sh -c")
            show(agent, folder, "a command of the deny list", "id", "system/fork", "id")
            show(agent, folder, "a program in /tmp", payload, "forbidden dir", payload)
        except DemoError:
            agent.end()
            print(agent.log(), file=sys.stderr, end="")
            raise
        status = agent.end()
        if status != 0:
            raise DemoError(f"the agent ended with status {status}")
        print(f"\ndemo: good, {len(agent.alarms())} alarms, among them \"shell\", \"system/fork\" and "
              f"\"forbidden dir\" of {VM}")


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else "build/release"
    # So that the cleaning up below also runs when somebody ends the demo early.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("demo: stopped"))
    if shutil.which(QEMU) is None:
        return f"demo: {QEMU} is not installed"
    # In /tmp by name: programs there are what the third alarm is about.
    with tempfile.TemporaryDirectory(prefix="vmescape-demo-", dir="/tmp") as folder:
        try:
            run(build, folder)
        except (DemoError, OSError) as error:
            return f"demo: failed: {error}"
        except KeyboardInterrupt:
            return "demo: stopped"
    return 0


if __name__ == "__main__":
    sys.exit(main())
