"""Runs the operations in machines, cuts their power, and looks at what is left. See scripts/check-power."""

import argparse
import collections
import json
import mmap
import os
import pathlib
import queue
import random
import shutil
import subprocess
import sys
import threading
import time

import cases
from disk_log import FLUSH, MODES, Disk, DiskLog, cut
from machine import Machine, MachineError

DISK_BYTES = 320 << 20  # the least that all of these file systems take
EXTRA_BYTES = 1 << 20
MAKERS = {
    "ext4": ["mkfs.ext4", "-q", "-F"],
    "xfs": ["mkfs.xfs", "-q", "-f"],
    "btrfs": ["mkfs.btrfs", "-q", "-f"],
}
MOST_KEPT = 30  # cases


def disk_of(path):
    """Returns the disk that a file holds."""
    with open(path, "rb") as file:
        return Disk(mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ))


class Check:
    def __init__(self, options):
        self.options = options
        self.home = pathlib.Path(options.home)
        self.machines = 0
        self.lock = threading.Lock()
        self.states = {}
        # By file system and operation: the states found, the cuts, the losses.
        self.found = collections.defaultdict(collections.Counter)
        self.losses = collections.defaultdict(list)
        self.cuts = collections.Counter()
        self.kept = 0
        self.seconds = 0.0
        self.end = time.monotonic() + 60 * options.minutes if options.minutes else None

    def machine(self, saved=True):
        with self.lock:
            self.machines += 1
            folder = self.home / f"machine{self.machines}"
        return Machine(self.options.kernel, self.options.system, folder, self.home / "saved" if saved else None)

    def save_machine(self):
        with self.machine(saved=False) as machine:
            machine.save(self.home / "saved")

    def mount(self, machine, file_system, disk, log=None, options="defaults"):
        device = machine.attach(disk, log)
        # Seen by whoever is asked why a case failed.
        result = machine.run(f"mount -t {file_system} -o {options} {device} /disk")
        cases.expect(result.code == 0, f"the file system cannot be mounted: {result.errors}{machine.console()}")

    def come_first(self, machine):
        """Other volumes come before the disk, so that it has another number than it had before the cut."""
        machine.attach(Disk(bytes(EXTRA_BYTES)))
        machine.must("mkdir /extra && mount -t tmpfs extra /extra")

    def is_done_with(self, file_system):
        """Whether no more cuts are wanted: the time is over, or a loss was what was asked for."""
        return (self.end is not None and time.monotonic() > self.end) or (
            self.options.prove and any(self.losses[file_system, each] for each in self.options.operation))

    def state(self, file_system, name):
        """Returns a disk with the state of this name."""
        key = file_system, name
        if key not in self.states:
            parent, make = cases.STATES[name]
            if parent is None:
                image = self.home / f"{file_system}.img"
                with open(image, "wb") as file:
                    file.truncate(DISK_BYTES)
                subprocess.run([*MAKERS[file_system], str(image)], check=True, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
                disk = disk_of(image)
            else:
                disk = self.state(file_system, parent).copy()
            with self.machine() as machine:
                self.mount(machine, file_system, disk)
                make(machine)
                machine.must("umount /disk")
            self.states[key] = disk
        return self.states[key].copy()

    def run(self, file_system, operation, number, cuts):
        """Runs an operation once, and judges so many cuts of this run."""
        name = f"{self.options.seed}/{file_system}/{operation}/{number}"
        chance = random.Random(name)
        disk = self.state(file_system, cases.start_of(operation, chance))
        written = disk.copy()
        log = DiskLog()
        mount_options = chance.choice(cases.MOUNT_OPTIONS[file_system])
        pause, age = chance.choice(cases.WRITE_BACK)
        begun, ended = [], []
        with self.machine() as machine:
            machine.must(f"echo {pause} >/proc/sys/vm/dirty_writeback_centisecs; echo {age} >/proc/sys/vm/dirty_expire_centisecs")
            if file_system == "xfs":
                machine.must(f"echo {max(pause, 100)} >/proc/sys/fs/xfs/xfssyncd_centisecs")
            self.mount(machine, file_system, written, log, mount_options)
            facts = cases.arrange(operation, machine, chance)
            first = len(log)
            for step in facts["steps"]:
                begun.append(len(log))
                result = machine.run(cases.as_player(step, not self.options.without_flushes))
                cases.expect(result.code == 0, f"{name}: `{step}` ended with {result.code}: {result.errors}")
                ended.append(len(log))
            facts["after"] = cases.bootstrap_files(machine)
            machine.must(f"usleep {chance.randrange(3000000)}")
        last = len(log)
        flushes = sum(1 for entry in log.entries[first:] if entry is FLUSH)
        print(f"{name}: {mount_options}, written back every {pause / 100:g} s after {age / 100:g} s; "
              f"{last - first - flushes} writes, {flushes} flushes", flush=True)
        for each in range(cuts):
            if self.is_done_with(file_system):
                return
            chance = random.Random(f"{name}/{each}")
            # A quarter of the cuts come right after the end of a step, before anything else is written.
            position = chance.choice(ended) if chance.random() < 0.25 else chance.randint(first, last)
            mode = chance.choice(MODES)
            case = {
                "name": f"{name}/{each}", "file_system": file_system, "operation": operation, "facts": facts,
                "position": position, "writes": [first, last], "mode": mode, "mount_options": mount_options,
                # The next step begins as soon as the one before it has ended.
                "begun": sum(1 for at in begun if at < position), "ended": sum(1 for at in ended if at <= position),
            }
            boots = number * self.options.cuts_of_a_run + each < self.options.boots
            self.judge(case, cut(disk, log, position, mode, chance), boots)

    def judge(self, case, disk, boots=False):
        """Judges what a cut has left."""
        key = case["file_system"], case["operation"]
        begin = time.monotonic()
        before = disk.copy()
        state = "lost"
        try:
            with self.machine(saved=not boots) as machine:
                if random.Random(case["name"] + "/number").random() < 0.5:
                    self.come_first(machine)
                self.mount(machine, case["file_system"], disk)
                try:
                    state = cases.judge(case["operation"], machine, case["facts"], case["begun"], case["ended"],
                                        random.Random(case["name"] + "/next"))
                except cases.Loss as loss:
                    raise cases.Loss(f"{loss}\n  {machine.run('dmesg | tail -n 3').output}") from None
                machine.must("umount /disk")
        except (cases.Loss, MachineError, KeyError, TypeError, ValueError) as loss:
            with self.lock:
                self.losses[key].append(f"{type(loss).__name__}: {loss}")
            self.tell(case, loss, before)
        with self.lock:
            self.cuts[key] += 1
            self.found[key][state] += 1
            self.seconds += time.monotonic() - begin

    def tell(self, case, loss, disk):
        print(f"LOST {case['name']}: cut after {case['position']} of {case['writes']}, {case['mode']}, "
              f"{case['begun']} steps begun, {case['ended']} ended, {case['mount_options']}:\n  {loss}", flush=True)
        with self.lock:
            self.kept += 1
            if self.options.again or self.kept > MOST_KEPT or (self.options.without_flushes and not self.options.keep):
                return
        folder = pathlib.Path(self.options.keep or self.options.default_keep) / case["name"].replace("/", "-")
        folder.mkdir(parents=True, exist_ok=True)
        with open(folder / "disk", "wb") as file:
            file.truncate(len(disk))
            empty = bytes(1 << 20)
            for offset in range(0, len(disk), 1 << 20):
                data = disk.read(offset, min(1 << 20, len(disk) - offset))
                if data != empty:
                    file.seek(offset)
                    file.write(data)
        (folder / "case.json").write_text(json.dumps(case, indent=1) + "\n")
        shutil.copy(self.options.system, folder / "system.gz")
        print(f"  scripts/check-power --again {folder}", flush=True)

    def again(self, folder):
        """Looks at the disk of a case that was kept. Returns the exit code."""
        folder = pathlib.Path(folder)
        case = json.loads((folder / "case.json").read_text())
        self.options.system = folder / "system.gz"
        self.judge(case, disk_of(folder / "disk"), boots=True)
        key = case["file_system"], case["operation"]
        if not self.losses[key]:
            print(f"{case['name']} is as it must be: {next(iter(self.found[key]))}.")
        return 1 if self.losses[key] else 0

    def all(self):
        """Runs everything. Returns the exit code."""
        options = self.options
        print(f"Seed {options.seed}", flush=True)
        self.save_machine()
        tasks = queue.SimpleQueue()
        for file_system in options.file_system:
            for name in sorted({state for state in cases.STATES}):
                self.state(file_system, name)
        # Round by round, so that a run that is ended early has seen everything.
        for number in range(-(-options.cuts // options.cuts_of_a_run)):
            cuts = min(options.cuts_of_a_run, options.cuts - number * options.cuts_of_a_run)
            for operation in options.operation:
                for file_system in options.file_system:
                    tasks.put((file_system, operation, number, cuts))
        broken = []

        def work():
            while not broken:
                try:
                    task = tasks.get_nowait()
                except queue.Empty:
                    return
                if self.is_done_with(task[0]):
                    continue
                try:
                    self.run(*task)
                except BaseException as problem:
                    broken.append(problem)
                    raise

        workers = [threading.Thread(target=work) for _ in range(options.jobs)]
        for each in workers:
            each.start()
        for each in workers:
            each.join()
        self.table()
        if broken:
            return 1
        if options.prove:
            unseen = [each for each in options.file_system if not any(self.losses[each, op] for op in options.operation)]
            for each in unseen:
                print(f"Without flushes nothing was lost on {each}: this check would not notice a loss.")
            return 1 if unseen else 0
        return 1 if any(self.losses.values()) and not options.without_flushes else 0

    def table(self):
        options = self.options
        print(f"\nSeed {options.seed}{', without flushes' if options.without_flushes else ''}")
        print(f"{'':12}{'':8}{'cuts':>6}{'lost':>6}  found")
        for operation in options.operation:
            for file_system in options.file_system:
                key = file_system, operation
                states = ", ".join(f"{state} {count}" for state, count in sorted(self.found[key].items()))
                print(f"{operation:12}{file_system:8}{self.cuts[key]:6}{len(self.losses[key]):6}  {states}")
        total = sum(self.cuts.values())
        print(f"{total} cuts, {sum(map(len, self.losses.values()))} lost; {self.seconds / max(total, 1):.1f} s a cut", flush=True)


def read_options():
    parser = argparse.ArgumentParser(allow_abbrev=False)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--cuts", type=int, default=20)
    parser.add_argument("--file-system", action="append", choices=MAKERS)
    parser.add_argument("--operation", action="append", choices=cases.OPERATIONS)
    parser.add_argument("--cuts-of-a-run", type=int, default=10)
    parser.add_argument("--boots", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--minutes", type=float)
    parser.add_argument("--without-flushes", action="store_true")
    parser.add_argument("--prove", action="store_true")
    parser.add_argument("--keep")
    parser.add_argument("--again")
    # These are the script's own.
    parser.add_argument("--kernel", required=True)
    parser.add_argument("--system")
    parser.add_argument("--home", required=True)
    parser.add_argument("--default-keep", required=True)
    options = parser.parse_args()
    options.file_system = list(dict.fromkeys(options.file_system or MAKERS))
    options.operation = list(dict.fromkeys(options.operation or cases.OPERATIONS))
    options.without_flushes = options.without_flushes or options.prove
    return options


def main():
    options = read_options()
    # Sockets have short names there.
    os.chdir(options.home)
    check = Check(options)
    return check.again(options.again) if options.again else check.all()


if __name__ == "__main__":
    sys.exit(main())
