"""An emulated machine, whose system lies in its memory and runs one command after the other."""

import base64
import collections
import json
import os
import pathlib
import shlex
import shutil
import socket
import subprocess
import time

from disk_server import DiskServer

MEMORY = 320  # MiB
PATIENCE = 1800  # seconds for anything a machine does, before it is taken to hang

Result = collections.namedtuple("Result", "code output errors")


class MachineError(Exception):
    """A machine that does not do what any machine does, or a file system that does not work."""


class Machine:
    """Runs until it is ended. `saved` is the state of a machine to go on from; otherwise the machine is started."""

    def __init__(self, kernel, system, folder, saved=None):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir()
        self.servers = []
        self.disks = 0
        monitor, monitor_end = socket.socketpair()
        agent, agent_end = socket.socketpair()
        ends = [monitor_end.fileno(), agent_end.fileno()]
        # It ends with this check, however that ends.
        command = [
            "setpriv", "--pdeathsig", "KILL",
            "qemu-system-x86_64", "-accel", "tcg,tb-size=256", "-machine", "pc", "-cpu", "max", "-m", str(MEMORY),
            "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot", "-kernel", str(kernel), "-initrd", str(system),
            "-append", "console=ttyS0 quiet panic=-1 mitigations=off nokaslr init_on_alloc=0 audit=0 random.trust_cpu=on",
            "-serial", f"file:{self.folder / 'console'}",
            "-chardev", f"socket,id=agent,fd={ends[1]}", "-serial", "chardev:agent",
            "-chardev", f"socket,id=monitor,fd={ends[0]}", "-mon", "chardev=monitor,mode=control",
        ]
        if saved is not None:
            command += ["-incoming", f"exec:cat {shlex.quote(str(saved))}"]
        with open(self.folder / "emulator", "wb") as said:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=said, stderr=said, pass_fds=ends)
        monitor_end.close()
        agent_end.close()
        for each in (monitor, agent):
            each.settimeout(PATIENCE)
        self.monitor = monitor.makefile("rwb")
        self.agent = agent.makefile("rwb")
        self.sockets = (monitor, agent)
        try:
            self._line(self.monitor)
            self._ask("qmp_capabilities")
            if saved is None:
                if self._line(self.agent) != b"ready\n":
                    raise MachineError("the machine did not start")
            else:
                while self._ask("query-status")["status"] == "inmigrate":
                    time.sleep(0.01)
                self._ask("cont")
            # A saved state has the time of its making.
            self.run(f"date -s @{int(time.time())}")
        except BaseException:
            self.end()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *problem):
        self.end()

    def end(self):
        """Cuts the machine's power."""
        self.process.kill()
        self.process.wait()
        for each in self.servers:
            each.close()
        self.servers = []
        shutil.rmtree(self.folder, ignore_errors=True)
        for each in (self.monitor, self.agent, *self.sockets):
            try:
                each.close()
            except OSError:
                pass

    def save(self, path):
        """Writes the machine's state into a file. It must not have a disk yet."""
        self._ask("stop")
        self._ask("migrate-set-parameters", {"max-bandwidth": 1 << 34})
        self._ask("migrate", {"uri": f"exec:cat >{shlex.quote(str(path))}"})
        while True:
            state = self._ask("query-migrate").get("status")
            if state == "completed":
                return
            if state in ("failed", "cancelled"):
                raise MachineError("the machine's state could not be saved")
            time.sleep(0.05)

    def attach(self, disk, log=None):
        """Gives the machine a disk with a cache of its own, and returns its device."""
        name = f"disk{self.disks}"
        device = "/dev/vd" + "abcdefghijklmnopqrstuvwxyz"[self.disks]
        self.disks += 1
        path = self.folder / name
        self.servers.append(DiskServer(path, disk, log))
        self._ask("blockdev-add", {"driver": "nbd", "node-name": name,
                                   "server": {"type": "unix", "path": os.path.relpath(path)}})
        self._ask("device_add", {"driver": "virtio-blk-pci", "id": "device-" + name, "drive": name, "write-cache": "on",
                                 "discard": False, "write-zeroes": False, "physical_block_size": 4096})
        found = self.run(f"i=0; until [ -b {device} ]; do i=$((i + 1)); [ $i -lt 20000 ] || exit 1; usleep 5000; done")
        if found.code != 0:
            raise MachineError("the machine does not see its disk: " + self.console())
        return device

    def run(self, command):
        """Runs a command of the shell as user 0, and returns how it ended."""
        assert "\n" not in command
        self.agent.write(command.encode() + b"\n")
        self.agent.flush()
        answer = self._line(self.agent).decode().strip()
        code, output, errors = answer.split(".")
        return Result(int(code), *(base64.b64decode(text).decode(errors="backslashreplace") for text in (output, errors)))

    def must(self, command):
        """Runs a command that has to succeed whatever the disk holds, and returns what it said."""
        result = self.run(command)
        if result.code != 0:
            raise MachineError(f"{command} ended with {result.code}: {result.errors}{self.console()}")
        return result.output

    def console(self):
        """Returns the end of what the kernel said."""
        try:
            return (self.folder / "console").read_text(errors="replace")[-1500:]
        except OSError:
            return ""

    def _said(self):
        return (self.folder / "emulator").read_text(errors="replace") + self.console()

    def _line(self, stream):
        try:
            line = stream.readline()
        except OSError as problem:
            raise MachineError(f"the machine does not answer: {problem} {self._said()}") from None
        if not line.endswith(b"\n"):
            raise MachineError(f"the machine ended: {self._said()}")
        return line

    def _ask(self, command, arguments=None):
        question = {"execute": command} | ({} if arguments is None else {"arguments": arguments})
        self.monitor.write(json.dumps(question).encode() + b"\n")
        self.monitor.flush()
        while True:
            answer = json.loads(self._line(self.monitor))
            if "return" in answer:
                return answer["return"]
            if "error" in answer:
                raise MachineError(f"{command}: {answer['error']['desc']}")
