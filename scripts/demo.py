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
PATIENCE = 30.0  # seconds that one step may take; ports are looked at every ten



def policies(keys):
    """The content of each policy file. keys: the file that stands for somebody's SSH keys."""
    return {
        # A deny list, so that a shell is told apart from a command that is not allowed.
        "qemu_cmd_detect_feature": {
            "monitor_list": [{"virtcmd": QEMU, "action": False, "cmdlist": ["/usr/bin/id"]}]},
        "qemu_file_detect_feature": {
            "action": False,
            "senstive_dirs": ["/etc", os.path.dirname(keys)],
            "monitor_list": [{"virtmonitor": QEMU, "filelist": ["/etc/shadow", keys]}]},
        # No port is allowed. That of the VNC display needs no permission.
        "qemu_port_detect_feature": {"monitor_list": [{"virtmonitor": QEMU, "portlist": []}]},
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

    def __init__(self, build, folder, contents):
        policy_folder = os.path.join(folder, "policies")
        os.mkdir(policy_folder)
        for feature, content in contents.items():
            policy = {"module_name": "vmescape_module", "enabled": True, "hash": "demo", "content": content}
            with open(os.path.join(policy_folder, feature + ".json"), "w", encoding="utf-8") as stream:
                json.dump(policy, stream)
        self.alarm_file = os.path.join(folder, "alarms.jsonl")
        self.log_file = os.path.join(folder, "agent.log")
        with open(self.log_file, "wb") as log:
            super().__init__(
                [os.path.join(build, "bin/vmescape-agent"), "run", "--policies", policy_folder,
                 "--log-level", "information", "--output", f"text:stdout,json:file:{self.alarm_file}"], stderr=log)

    def log(self):
        with open(self.log_file, encoding="utf-8", errors="replace") as stream:
            return stream.read()

    def wait_ready(self):
        # The directories are marked by a thread of their own, which says when it is done.
        ready = (" is running, ", " directories are watched.")
        wait_until(lambda: all(text in self.log() for text in ready) or not self.running(),
                   "the agent does not get ready")
        if not self.running():
            raise DemoError("the agent did not start")

    def alarms(self):
        with open(self.alarm_file, encoding="utf-8") as stream:
            return [json.loads(line) for line in stream if line.endswith("\n")]

    def has_alarm(self, matches):
        return any(alarm["resource_info"]["vm_name"] == VM and matches(alarm) for alarm in self.alarms())


class VirtualMachine(Child):
    """A QEMU without a guest: emulated, headless, stopped before its first instruction."""

    def __init__(self, folder, options):
        self.monitor = os.path.join(folder, "monitor")
        self.log_file = os.path.join(folder, "qemu.log")
        with open(self.log_file, "wb") as log:
            super().__init__(
                [QEMU, "-name", f"guest={VM},debug-threads=on", "-accel", "tcg", "-m", "32", "-nodefaults",
                 "-display", "none", "-serial", "none", "-S", "-monitor", f"unix:{self.monitor},server,nowait",
                 *options],
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


def of_command(mode, command):
    """Matches the alarm of a command."""
    return lambda alarm: (alarm["event_classid"] == "vmescape_0001"
                          and alarm["forensic_info"]["escape_mode"] == mode
                          and alarm["process_info"][0]["process_cmdline"].startswith(command))


def of_file(path, process):
    """Matches the alarm of a file."""
    return lambda alarm: (alarm["event_classid"] == "vmescape_0002"
                          and alarm["file_info"][0]["file_path"] == path
                          and alarm["process_info"][0]["process_name"] == process)


def of_port(port):
    """Matches the alarm of a port."""
    return lambda alarm: (alarm["event_classid"] == "vmescape_0003"
                          and alarm["forensic_info"]["abnormal_port"] == str(port))


def free_port(first):
    """A port from first on that nobody listens at."""
    for port in range(first, 65536):
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass
    raise DemoError("there is no free port")


def show(agent, folder, title, line, matches, options=()):
    """One virtual machine, one line typed into its monitor, one alarm."""
    print(f"\n== {title}: {line}", flush=True)
    with VirtualMachine(folder, options) as machine:
        machine.command(line)
        wait_until(lambda: agent.has_alarm(matches) or not agent.running(), f"the alarm of {VM} did not come")
        if not agent.running():
            raise DemoError("the agent ended by itself")


def write_program(folder, name, interpreter):
    """A script that no shell runs."""
    path = os.path.join(folder, name)
    with open(path, "w", encoding="utf-8") as stream:
        stream.write(f"#!{interpreter}\n")
    os.chmod(path, 0o755)
    return path


def steps(folder, keys):
    """What the virtual machine does, and the alarm that must follow."""
    payload = os.path.join(folder, "payload")
    shutil.copy("/usr/bin/true", payload)
    yield "a shell", 'migrate "exec:sh -c bash"', of_command("shell", "/bin/sh -c")
    yield "a command of the deny list", 'migrate "exec:id"', of_command("system/fork", "id")
    yield "a program in /tmp", f'migrate "exec:{payload}"', of_command("forbidden dir", payload)
    yield ("QEMU opens a sensitive file", "drive_add 0 file=/etc/shadow,format=raw,if=none,id=x,readonly=on",
           of_file("/etc/shadow", QEMU))
    display = free_port(5900) - 5900
    port = free_port(4444)
    yield (f"a control port (the VNC display at port {5900 + display} is excused)",
           f"gdbserver tcp:127.0.0.1:{port}", of_port(port), ["-vnc", f"127.0.0.1:{display}"])
    if os.access("/dev/net/tun", os.R_OK | os.W_OK):
        reader = write_program(folder, "reader", f"/usr/bin/cat {keys}")
        yield ("a program started without a shell reads another",
               f"netdev_add tap,id=n0,ifname=tapdemo0,downscript=no,script={reader}", of_file(keys, "reader"))
    else:
        print("\n(no /dev/net/tun here: the step with a network script is left out)")


def run(build, folder):
    keys = os.path.join(folder, "home", ".ssh", "authorized_keys")
    os.makedirs(os.path.dirname(keys))
    with open(keys, "w", encoding="utf-8") as stream:
        stream.write("ssh-ed25519 not-a-key\n")
    with Agent(build, folder, policies(keys)) as agent:
        try:
            agent.wait_ready()
            for step in steps(folder, keys):
                show(agent, folder, *step)
        except DemoError:
            agent.end()
            print(agent.log(), file=sys.stderr, end="")
            raise
        status = agent.end()
        if status != 0:
            raise DemoError(f"the agent ended with status {status}")
        ports = {alarm["forensic_info"].get("abnormal_port") for alarm in agent.alarms()} - {None}
        if any(5900 <= int(port) < 6000 for port in ports):
            raise DemoError("the VNC display raised an alarm")
        classes = sorted({alarm["event_classid"] for alarm in agent.alarms()})
        print(f"\ndemo: good, {len(agent.alarms())} alarms of {VM}: {', '.join(classes)}")


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else "build/release"
    os.umask(0o022)  # the agent takes no policy that others may write
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
