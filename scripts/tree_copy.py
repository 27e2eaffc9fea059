"""A copy of the tree for the scripts that change sources, and the running of commands in it."""

import os
import pathlib
import signal
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent


def copy_tree(copy):
    """Brings the copy up to date; a file that has not changed keeps its time, and is not built again."""
    names = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True).stdout
    for name in filter(None, names.decode().split("\0")):
        source, target = ROOT / name, copy / name
        if not source.is_file():
            continue
        if not target.is_file() or target.read_bytes() != source.read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(source.read_bytes())
            target.chmod(source.stat().st_mode)


def run(command, log, cwd=ROOT, patience=None, environment=None):
    """Runs a command and all that it starts, which end with it. Returns the exit code; None where the patience has
    ended, in seconds. Its words go into the log."""
    # A shell lets what it starts in the background ignore these signals, which tests send.
    command = ["env", "--default-signal=HUP,INT,QUIT,TERM", *command]
    with open(log, "w") as output:
        process = subprocess.Popen(command, cwd=cwd, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                   env=environment, start_new_session=True)
        try:
            return process.wait(patience)
        except subprocess.TimeoutExpired:
            return None
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()


def failed_tests(log):
    """The names of the tests that failed, as a test program's log tells them."""
    names = []
    for line in log.read_text(errors="replace").splitlines():
        if line.startswith("[  FAILED  ] ") and "(" in line:
            name = line[len("[  FAILED  ] "):].split(" (")[0].split(",")[0]
            if name not in names:
                names.append(name)
    return names
