"""The operations whose machines lose their power, and what must be true of the disks that these leave."""

import json

HOME = "/disk/player"
DATA = HOME + "/.local/share/Ravok"
CLIENT = DATA + "/native/bootstrap/bin/ravok-bootstrap"
INSTALLER = "/opt/installer/ravok-install"
MAINTENANCE = "/opt/ravok-maintenance"
WITHOUT_FLUSHES = "/opt/without_flushes.so"
OPERATIONS = ("install", "repair", "update", "bootstrap", "uninstall")

# How the file system of a run is mounted, and when the kernel writes by itself: in hundredths of a second, the pause
# between two looks at what is to be written, and the age from which it is.
MOUNT_OPTIONS = {
    "ext4": ("defaults", "commit=1", "commit=1,nodelalloc", "noauto_da_alloc", "commit=1,data=writeback"),
    "xfs": ("defaults", "wsync", "logbsize=32k", "defaults", "logbsize=256k"),
    "btrfs": ("defaults", "commit=1", "commit=1,flushoncommit", "notreelog", "commit=1,nodatacow"),
}
WRITE_BACK = ((500, 3000), (10, 10), (50, 100), (100, 20), (10, 300))


class Loss(Exception):
    """A disk that is not as it must be."""


def expect(holds, what):
    if not holds:
        raise Loss(what)


def as_player(command, flushes=True):
    """Returns the command of user 0 that runs a command as the player, at home."""
    preload = "" if flushes else f"LD_PRELOAD={WITHOUT_FLUSHES} "
    return f"su player -c 'cd {HOME} && {preload}{command}'"


def document(machine, command):
    """Runs a command as the player that must succeed, and returns the document that it prints."""
    result = machine.run(as_player(command))
    expect(result.code == 0, f"`{command}` ended with {result.code}: {result.errors}{result.output}")
    try:
        found = json.loads(result.output)
    except ValueError:
        raise Loss(f"`{command}` printed no document: {result.output}") from None
    expect(found.get("schema_version") == 1, f"`{command}` printed an unknown document: {result.output}")
    return found


def do(machine, command):
    """Runs a command as the player that must succeed."""
    result = machine.run(as_player(command))
    expect(result.code == 0, f"`{command}` ended with {result.code}: {result.errors}{result.output}")
    return result.output


def digests(machine, *places):
    """Returns the digests of the files in these places, by their names. What is missing has none."""
    found = machine.must(f"find {' '.join(places)} -type f -exec sha256sum {{}} + 2>/dev/null || true")
    return {name: digest for digest, name in (line.split("  ", 1) for line in found.splitlines())}


def player_files(machine):
    return digests(machine, DATA + "/userdata", DATA + "/settings.json")


def bootstrap_files(machine):
    """Returns the bootstrap's files, without those that an update has put aside for the way back."""
    found = digests(machine, DATA + "/native/bootstrap")
    return {name: digest for name, digest in found.items() if not name.endswith(".old")}


def write_player_data(machine):
    machine.must(as_player(f"mkdir -p {DATA}/userdata/chapter && chmod 700 {DATA} && "
                           f"dd if=/dev/urandom of={DATA}/userdata/chapter/save bs=1000 count=70 && "
                           f"echo Chapter 7 >{DATA}/userdata/place && echo {{}} >{DATA}/settings.json"))


# What an operation starts from. Each is made of the one that it names, on a disk that is mounted.

def make_empty(machine):
    machine.must(f"mkdir {HOME} && echo Dear reader >{HOME}/letter && chown -R 1000:1000 {HOME}")


def make_kept(machine):
    write_player_data(machine)


def make_installed(machine):
    do(machine, INSTALLER)
    do(machine, f"{CLIENT} self status")
    expect(document(machine, f"{CLIENT} --json self status")["active"]["build_id"] == "1.0.0", "1.0.0 is not active")
    write_player_data(machine)


def make_staged(machine):
    machine.must("ln -sfn /srv/bootstrap /srv/web")
    do(machine, f"{CLIENT} self update")
    expect(document(machine, f"{MAINTENANCE} --json status")["bootstrap_update_pending"], "no bootstrap is staged")


STATES = {
    "empty": (None, make_empty),
    "kept": ("empty", make_kept),
    "installed": ("empty", make_installed),
    "staged": ("installed", make_staged),
}


def start_of(operation, random):
    """Returns the state that a run of the operation starts from."""
    if operation == "install":
        return random.choice(("empty", "kept"))
    return "staged" if operation == "bootstrap" else "installed"


def arrange(operation, machine, random):
    """Makes what differs between the runs of an operation. Returns the facts of this run, with its steps."""
    facts = {"remove_data": False}
    if operation == "install":
        steps = [INSTALLER, f"{CLIENT} self status"]
    elif operation == "repair":
        files = machine.must(f"find {DATA}/launcher/versions {DATA}/native/bootstrap {DATA}/trust/root.json -type f").split()
        damaged = random.sample(files, random.choice((1, 2, 4)))
        for each in damaged:
            machine.must(random.choice((f"echo damage >{each}", f"rm {each}")))
        steps = [f"{INSTALLER} repair", f"{CLIENT} self status"]
    elif operation == "update":
        machine.must("ln -sfn /srv/launcher /srv/web")
        steps = [f"{CLIENT} self update", f"{CLIENT} self status", f"{CLIENT} self status"]
    elif operation == "bootstrap":
        steps = [f"{CLIENT} self status", f"{CLIENT} self status"]
    else:
        facts["remove_data"] = random.random() < 0.3
        program = random.choice((f"{CLIENT} self uninstall", f"{MAINTENANCE} uninstall"))
        steps = [program + (" --remove-data" if facts["remove_data"] else "")]
    machine.must("sync")
    facts |= {"steps": steps, "player": player_files(machine), "letter": digests(machine, HOME + "/letter"),
              "bootstrap": bootstrap_files(machine)}
    return facts


def judge(operation, machine, facts, begun, ended, random):
    """Judges a disk that is mounted: `begun` steps of the operation had begun before the cut, and of these so many had
    said that they succeeded. Returns the state that was found."""
    expect(digests(machine, HOME + "/letter") == facts["letter"], "a file beside the client is not as it was")
    status = document(machine, f"{MAINTENANCE} --json status")
    expect(not (status["installed"] and status["incomplete"]), "the folder is whole and not whole")
    state = "complete" if status["installed"] else "interrupted" if status["incomplete"] else "not installed"
    data_there = player_files(machine)
    if not facts["remove_data"] or state == "complete":
        expect(data_there == facts["player"], f"the player's data is not as it was: {data_there}")
    operations = {"install": judge_install, "repair": judge_repair, "update": judge_update,
                  "bootstrap": judge_bootstrap, "uninstall": judge_uninstall}
    operations[operation](machine, facts, state, begun, ended, random)
    # Whatever came next has left the player's data, and a client that is whole.
    expect(player_files(machine) == data_there, "the next command has changed the player's data")
    expect(digests(machine, HOME + "/letter") == facts["letter"], "the next command has changed a file beside the client")
    expect_whole(machine, was_tried(facts, begun, ended))
    return state


def was_tried(facts, begun, ended):
    """Whether the cut came while a version may have been on trial."""
    return begun > ended and facts["steps"][begun - 1].startswith(CLIENT)


def expect_whole(machine, tried=False):
    """The client is installed, starts, and nothing of it is damaged. A version that was tried when the power went is not
    tried again by itself: it may have been its own fault. Where there is no other, it is started all the same."""
    status = document(machine, f"{MAINTENANCE} --json status")
    expect(status["installed"], "the client is not installed in the end")
    start(machine)
    again = start(machine)
    repaired = document(machine, f"{INSTALLER} repair --json")
    failed = again["failed_candidate"]
    if tried and again["active"] is None and failed and failed["problem"] == "startup_interrupted":
        # A repair gives that version another trial, by which it becomes the active one.
        expect(repaired["replaced"] in ([], ["launcher"]), f"more than the version had to be repaired: {repaired}")
        start(machine)
        again = start(machine)
        repaired = document(machine, f"{INSTALLER} repair --json")
    expect(again["on_trial"] is None and again["active"] and again["active"]["build_id"] == again["version"],
           f"the second start is a trial, or not of the active version: {again}")
    expect(repaired["replaced"] == [], f"a client that calls itself whole had to be repaired: {repaired['replaced']}")


def start(machine):
    return document(machine, f"{CLIENT} --json self status")


def finish(machine, state, choices, random):
    """Runs the next command, of those that fit the state, and leaves a client that is installed."""
    if state == "not installed":
        do(machine, INSTALLER)
        return
    following = random.choice(choices)
    if following == "uninstall":
        do(machine, f"{MAINTENANCE} uninstall")
        expect_removed(machine)
        do(machine, INSTALLER)
    elif following == "start":
        start(machine)
    else:
        do(machine, INSTALLER + (" repair" if following == "repair" else ""))


def expect_removed(machine):
    """Only the player's data is left in the data folder, perhaps with locks that were made anew, and no menu entry."""
    left = machine.must(f"ls -A {DATA} 2>/dev/null || true").split()
    beyond = set(left) - {"userdata", "settings.json", ".ravok-setup.lock", ".native-bootstrap.lock"}
    expect(not beyond, f"an uninstall has left {sorted(beyond)}")
    entries = machine.must(f"ls {HOME}/.local/share/applications 2>/dev/null || true").split()
    expect(not entries, f"an uninstall has left the menu entry {entries}")


def judge_install(machine, facts, state, begun, ended, random):
    if ended > 0:
        expect(state == "complete", f"an installation that had succeeded is {state}")
    if state == "complete" and random.random() < 0.5:
        expect_whole(machine, was_tried(facts, begun, ended))
    finish(machine, state, ("repair", "uninstall", "start") if state == "complete" else ("repair", "install", "uninstall"),
           random)


def judge_repair(machine, facts, state, begun, ended, random):
    expect(state != "not installed", "a repair has lost the installation")
    if ended > 0:
        expect(state == "complete", f"a repair that had succeeded is {state}")
        if random.random() < 0.5:
            expect_whole(machine, was_tried(facts, begun, ended))
    # Before its end it may not have begun, so that what was damaged still is.
    finish(machine, state, ("repair", "uninstall") if state == "complete" else ("repair", "install", "uninstall"), random)


def judge_update(machine, facts, state, begun, ended, random):
    expect(state == "complete", f"an update has left an installation that is {state}")
    following = random.choice(("start", "repair", "uninstall", "update"))
    if following in ("repair", "uninstall"):
        finish(machine, state, (following,), random)
        if following == "uninstall":
            return
    found = start(machine)
    expect(found["version"] in ("1.0.0", "1.1.0"), f"a version that nobody has published is there: {found}")
    if ended > 0 and found["version"] == "1.0.0":
        # A trial that was cut short may have been the version's fault, and is not repeated by itself.
        expect(begun == 2 and ended == 1 and found["failed_candidate"], f"an update that had succeeded is lost: {found}")
    machine.must("ln -sfn /srv/launcher /srv/web")
    do(machine, f"{CLIENT} self update")
    start(machine)
    found = start(machine)
    expect(found["version"] == "1.1.0", f"the next update did not bring the new version: {found}")


def judge_bootstrap(machine, facts, state, begun, ended, random):
    expect(state == "complete", f"an update of the bootstrap has left an installation that is {state}")
    # While its files are put in place one by one, each of them is the old or the new one, and what stands starts.
    for name, digest in bootstrap_files(machine).items():
        expect(digest in (facts["bootstrap"].get(name), facts["after"].get(name)), f"{name} is neither old nor new")
    if ended > 0:
        expect(bootstrap_files(machine) == facts["after"], "a bootstrap that had started is lost")
    following = random.choice(("start", "start", "repair", "uninstall"))
    finish(machine, state, (following,), random)
    if following == "uninstall":
        return
    start(machine)
    files = bootstrap_files(machine)
    expect(files in (facts["bootstrap"], facts["after"]), f"the bootstrap is neither the old nor the new one: {files}")
    machine.must("ln -sfn /srv/bootstrap /srv/web")
    said = do(machine, f"{CLIENT} self update")
    start(machine)
    # One whose first start was cut short counts as one that failed.
    expected = facts["bootstrap"] if "failed when it was tried" in said else facts["after"]
    expect(bootstrap_files(machine) == expected, f"the next start did not bring the new bootstrap: {said}")
    expect(expected == facts["after"] or begun > ended, f"the bootstrap was refused for no reason: {said}")


def judge_uninstall(machine, facts, state, begun, ended, random):
    if ended > 0:
        expect(state == "not installed", f"an uninstall that had succeeded is {state}")
        expect_removed(machine)
        if facts["remove_data"]:
            expect(player_files(machine) == {}, "data that was removed is back")
    if state == "complete" and random.random() < 0.5:
        expect_whole(machine, was_tried(facts, begun, ended))
    finish(machine, state, ("repair", "uninstall", "start") if state == "complete" else ("repair", "install", "uninstall"),
           random)
