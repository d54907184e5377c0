"""The fault campaign, inside a sandbox: a table of faults, and the promises that hold after every round.

    campaign.py SEED ROUNDS WORKER WORKERS CYCLES [FAULT...]

Plays this worker's share of ROUNDS rounds of every fault or of these, then CYCLES supervision cycles in one launcher,
and writes a line for each. Stops at the first broken promise with exit status 1. script/torture runs it.
"""
import contextlib
import os
import pathlib
import random
import resource
import shutil
import subprocess
import sys
import threading
import time
import traceback

import machine as sandbox
import service
from machine import AGENT, LOCK, TOOLS, companions, end_all, own, until

HOSTS = pathlib.Path("/etc/hosts")
OLD = sandbox.companion_program("2.5")
ROUND_SECONDS = 110  # the mandated pauses and two time limits, one after the other, with room to spare
BROKEN = "BROKEN\t"  # what the report of a broken promise begins with
PEAK_KIB = 160 * 1024  # of memory: more than a launcher takes, less than what it is offered


class Round:
    """What faults are made with, and what is expected of a round unless its fault says otherwise."""

    outcomes = {"old"}  # of the installed executable: "old", "new", "absent", "folder"
    starts = 1  # how often the start command runs; None: it depends
    downloads = None  # how often the executable is asked for; None: it depends
    status = None  # of the launcher; None: it lives
    command = None  # what starts the launcher, if not its own path
    launched = None  # what happens to the launcher while it runs

    def __init__(self, machine, undo):
        self.machine, self.undo, self.service = machine, undo.callback, machine.service
        self.payload = sandbox.companion_program("2.6", random.choice([700, random.randrange(1000, 400_000)]))
        self.offset = random.randrange(len(self.payload))
        self.target, self.folder = machine.companion, machine.companion.parent
        self.done = AGENT.exists  # the last thing that start-up does


def answer(what, fault):
    return lambda r: r.service.faults.update({what: fault})


def break_off(what, make):
    """An answer that does not arrive whole; a version, though, far enough to read as a newer one."""

    def bring_about(r):
        offset = r.offset
        if what == "version":
            r.machine.offer("99.9.9.9", launcher="99.9.9.9")
            offset = 3 + r.offset % 6
        r.service.faults[what] = make(offset)

    return bring_about


def unresolved(r):
    r.undo(HOSTS.write_text, HOSTS.read_text())
    HOSTS.write_text("")


def full_disk(r):
    size = 4096 * random.randrange(1, len(r.payload) // 4096 + 3)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size + 4096},uid=1000", "none", r.folder], check=True)
    r.undo(subprocess.run, ["umount", "-l", r.folder], check=True)
    lay_old(r.target)
    r.outcomes = {"new" if size >= len(r.payload) else "old"}


def failing_call(call, error):
    """A step of the replacement fails, after all bytes have been received."""
    strace = f"/usr/bin/strace -D -f -o /dev/null -e inject={call}:error={error}:when=1".split()
    return lambda r: setattr(r, "command", [*strace, r.machine.launcher_path])


def become_folder(r):
    r.target.unlink()
    r.target.mkdir()


def strike(r, process=None):
    """Kills the launcher, or the other process, at any moment after the launcher has begun; often in the download."""
    delay = random.uniform(0, 5)
    if random.random() < 0.5:
        r.service.faults["download"] = service.stall(r.offset)

    def strike_later(launcher):
        until(LOCK.exists, "the launcher has begun")
        time.sleep(delay)
        (process or launcher).kill()

    r.launched = strike_later
    r.done = lambda: False


def lose_display(r):
    name, display = r.machine.start_display()
    r.command = ["/usr/bin/env", f"DISPLAY={name}", r.machine.launcher_path]
    strike(r, display)


def pipe_as_marker(r):
    r.machine.marker.unlink()
    os.mkfifo(r.machine.marker)


ASKED = {"downloads": 1}
NEW = ASKED | {"outcomes": {"new"}}
OUTDATED = NEW | {"status": 255}  # a marker that is no version counts as 0.0
NOT_ASKED = {"downloads": 0}
NO_START = {"starts": 0}
ANY = {"outcomes": {"old", "new"}, "starts": None}
GOOD = service.status(200)
STALLED = service.stall(500)
SILENCE = {"connect": service.silent_handshake}
BROKEN_OFF = {"reset": service.reset, "cut": service.cut, "chunked": service.chunked_cut}
# What brings a fault about, and what is expected otherwise than usual.
FAULTS = {
    "none": (lambda r: None, NEW),
    "version: redirect": (break_off("version", lambda _: service.redirect), NO_START),
    "version: endless": (answer("version", service.endless), NO_START),
    "version: stalled": (break_off("version", service.stall), NO_START),
    "version: error with a version": (answer("version", service.status(500)), NEW),
    "download: empty": (answer("download", service.body(b"")), {}),
    "download: redirect": (answer("download", service.redirect), ASKED),
    "download: dripping": (answer("download", service.drip(0.05)), {}),
    "download: partial": (answer("download", service.status(206)), {}),
    "download: wrong host": (answer("version", service.and_then(GOOD, certificate="wrong-host")), NOT_ASKED),
    "download: no handshake": (answer("version", service.and_then(GOOD, faults=SILENCE)), NOT_ASKED),
    "download: stalled, then silence": (answer("download", service.and_then(STALLED, faults=SILENCE)), ASKED),
    "handshake: never ends": (lambda r: r.service.faults.update(SILENCE), NO_START),
    "name: does not resolve": (unresolved, NO_START),
    "disk: full": (full_disk, {}),
    "folder: read-only": (lambda r: r.folder.chmod(0o555), NOT_ASKED),
    "folder: in the target's place": (become_folder, NOT_ASKED | {"outcomes": {"folder"}}),
    "folder: missing": (lambda r: shutil.rmtree(r.folder), NOT_ASKED | {"outcomes": {"absent"}}),
    "target: missing": (lambda r: r.target.unlink(), NEW),
    "killed": (strike, ANY | {"status": -9}),
    "display lost": (lose_display, ANY | {"status": 1}),
    "pkill: missing": (lambda r: (TOOLS / "pkill").unlink(), NEW),
    "open: fails": (lambda r: sandbox.lay_tool("open", "exit 1"), NEW),
    "marker: pipe": (pipe_as_marker, OUTDATED),
    "marker: endless line": (lambda r: r.machine.marker.open("wb").truncate(1 << 30), OUTDATED),
    "marker: binary": (lambda r: r.machine.marker.write_bytes(b"\xff" + random.randbytes(5000)), OUTDATED),
}
for name in ("expired", "self-signed", "wrong-host"):
    FAULTS[f"certificate: {name}"] = (lambda r, name=name: setattr(r.service, "certificate", name), NO_START)
for call in ("fsync", "chmod", "rename"):
    FAULTS[f"disk: {call} fails"] = (failing_call(call, "EIO"), {})
for error in ("EOPNOTSUPP", "ENOTTY", "EINVAL"):
    FAULTS[f"disk: no cache flush, {error}"] = (failing_call("fsync", error), NEW)
for name, make in BROKEN_OFF.items():
    FAULTS[f"download: {name}"] = (break_off("download", make), {})
    FAULTS[f"version: {name}"] = (break_off("version", make), NO_START)


def lay_old(target):
    target.write_bytes(OLD)
    target.chmod(0o700)
    os.utime(target, ns=(10**18, 10**18))
    own(target.parent)


def snapshot(machine):
    """Everything in the install folder but the target and what lies beside it."""
    paths = [path for path in machine.folder.rglob("*") if machine.companion.parent not in (path, *path.parents)]
    return {path: sandbox.state(path) for path in paths}


def staging(machine):
    return set(machine.folder.rglob("*.download.*"))


def begin(machine):
    """Brings the machine to where every round starts: with what a launcher killed in a download has left behind."""
    machine.service.faults = {}
    machine.service.requests.clear()
    machine.service.certificate = "good"
    for path in (machine.marker, machine.flag, AGENT, LOCK, machine.companion.parent):
        subprocess.run(["rm", "-rf", path], check=True)
    machine.marker.write_text("2.5\n")
    sandbox.lay_tools()
    machine.companion.parent.mkdir()
    machine.companion.with_name("KR.download.killed").write_bytes(OLD[:300])
    lay_old(machine.companion)


def outcome(r):
    if not r.target.exists():
        return "absent"
    if r.target.is_dir():
        return "folder"
    content, status = r.target.read_bytes(), r.target.stat()
    if content == OLD:
        untouched = (status.st_mode, status.st_mtime_ns) == (0o100700, 10**18)
        assert untouched, "the old executable's mode or times changed"
        return "old"
    assert content == r.payload and status.st_mode == 0o100755, "the installed executable is damaged"
    return "new"


def play(machine, fault):
    """One round; returns the outcome, or raises when a promise is broken."""
    begin(machine)
    with contextlib.ExitStack() as undo:
        r = Round(machine, undo)
        machine.offer("2.6", payload=r.payload)
        bring_about, expected = FAULTS[fault]
        vars(r).update(expected)
        bring_about(r)
        before, leftovers = snapshot(machine), staging(machine)
        launcher = machine.launch(command=r.command, environment=machine.environment | {"PATH": str(TOOLS)})
        if r.launched:
            threading.Thread(target=r.launched, args=[launcher], daemon=True).start()
        until(lambda: r.done() or launcher.poll() is not None, "the end of start-up or launcher", ROUND_SECONDS)
        assert launcher.poll() == r.status, f"the launcher's status is {launcher.poll()}, not {r.status}"
        end_all("Korvane")
        launcher.wait()

        found, opened, downloads = outcome(r), len(sandbox.calls("open")), r.service.order().count("download")
        assert found in r.outcomes, f"the executable is {found}, not in {r.outcomes}"
        assert r.starts in (None, opened), f"the start command ran {opened} times, not {r.starts}"
        assert r.downloads in (None, downloads), f"the executable was asked for {downloads} times, not {r.downloads}"
        left = staging(machine) - (leftovers if found != "new" else set())
        assert r.launched or not left, f"staging files are left: {left}"
        assert snapshot(machine) == before, "something else has changed"
        peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        assert peak < PEAK_KIB, f"a launcher took {peak} KiB of memory"
        end_all("KR")
        return found


def supervise(machine, cycles):
    """One launcher through many cycles in quick time, each with a companion that died and a download fault."""
    begin(machine)
    machine.offer("2.6", payload=sandbox.companion_program("2.6", 50_000))
    kinds = [service.reset(700), service.cut(700), service.status(500), service.body(b""), None]
    launcher = machine.launch(quickly=True, environment=machine.environment | {"PATH": str(TOOLS)})
    usage = []
    for cycle in range(cycles):
        machine.service.faults["download"] = random.choice(kinds)
        until(lambda: len(sandbox.calls("open")) == cycle + 1, "the start command runs after every download")
        until(companions, "the companion runs")
        # While it runs the launcher only sleeps, reads the flag and probes: little that it holds comes and goes.
        status = pathlib.Path(f"/proc/{launcher.pid}/status").read_text()
        memory = sum(int(line.split()[1]) for line in status.splitlines() if line.startswith(("RssAnon", "VmData")))
        usage.append((memory, len(os.listdir(f"/proc/{launcher.pid}/fd"))))
        end_all("KR")
        print(cycle, "supervision cycle", "started again", sep="\t", flush=True)
    settled, last = usage[len(usage) // 4], usage[-1]
    kept = last[0] <= settled[0] + 4096 and last[1] <= settled[1] + 3
    assert kept, f"memory or descriptors grow: {settled} to {last}"
    machine.flag.write_text("1\n")
    assert launcher.wait(60) == 0, "the flag ends the launcher with 0"


def main():
    seed, rounds, worker, workers, cycles = map(int, sys.argv[1:6])
    plan = [fault for fault in sys.argv[6:] or FAULTS for _ in range(rounds)]
    random.Random(seed).shuffle(plan)
    share = [(number, plan[number]) for number in range(worker, len(plan), workers)]
    with sandbox.Machine() as machine:
        for number, fault in share + [(worker, "supervision")]:
            random.seed(f"{seed} {number}")
            try:
                if fault != "supervision":
                    print(number, fault, play(machine, fault), sep="\t", flush=True)
                elif cycles:
                    supervise(machine, cycles)
            except BaseException:
                print(f"{BROKEN}seed {seed}, round {number}: {fault}\n{traceback.format_exc()}", flush=True)
                return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
