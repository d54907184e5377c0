"""The fault campaign, inside a sandbox: a table of faults, and the promises that hold after every round.

    campaign.py SEED ROUNDS WORKER WORKERS CYCLES [FAULT]

Plays this worker's share of ROUNDS rounds of every fault or of one, then CYCLES supervision cycles in one launcher,
and writes a line for each. Stops at the first broken promise with exit status 1. script/torture runs it.
"""
import contextlib
import hashlib
import os
import pathlib
import random
import re
import resource
import shutil
import subprocess
import sys
import threading
import time
import traceback

import machine as sandbox
import service as net
from machine import AGENT, LOCK, TOOLS, Machine, calls, companions, own, processes, until

HOSTS = pathlib.Path("/etc/hosts")
OLD = sandbox.companion_program("2.5")
ROUND_SECONDS = 110  # the mandated pauses and two time limits, one after the other, with room to spare
PEAK_KIB = 160 * 1024  # of memory: more than a launcher takes, less than what it is offered


class Round:
    """One round: what is expected of it unless its fault says otherwise, and what the faults are made with."""

    outcomes = {"old"}  # of the installed executable: "old", "new", "absent", "folder"
    starts = 1  # how often the start command runs; None: it depends
    downloads = None  # how often the executable is asked for; None: it depends
    status = None  # of the launcher; None: it lives
    command = None  # what starts the launcher, if not its own path

    def __init__(self, machine, rng, undo):
        self.machine, self.rng, self.undo, self.service = machine, rng, undo.callback, machine.service
        self.payload = sandbox.companion_program("2.6", rng.choice([700, rng.randrange(1000, 400_000)]))
        self.offset = rng.randrange(len(self.payload))
        self.target, self.folder = machine.companion, machine.companion.parent
        self.done = AGENT.exists  # the last thing that start-up does

    def launched(self, launcher):
        """What happens while the launcher runs."""

    def expect(self, **changes):
        vars(self).update(changes)

    def asked(self, what, action):
        """Does something when the service is asked, which then answers well."""
        self.service.faults[what] = lambda handler, content: (action(handler), handler.send(200, content))


def serve(what, make, **expected):
    def play(r):
        r.service.faults[what] = make(r)
        r.expect(**expected)

    return play


def do(action, **expected):
    def play(r):
        action(r)
        r.expect(**expected)

    return play


def break_off(make):
    """A version answer that does not arrive whole, but far enough to read as a newer version."""

    def play(r):
        r.machine.offer("99.9.9.9", launcher="99.9.9.9")
        r.service.faults["version"] = make(3 + r.offset % 6)
        r.expect(starts=0)

    return play


def unresolved(r):
    r.undo(HOSTS.write_text, HOSTS.read_text())
    HOSTS.write_text("")


def full_disk(r):
    status, size = r.target.stat(), 4096 * r.rng.randrange(1, len(r.payload) // 4096 + 3)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size + 4096},uid=1000", "none", r.folder], check=True)
    r.undo(subprocess.run, ["umount", "-l", r.folder], check=True)
    lay_old(r.target, (status.st_atime_ns, status.st_mtime_ns))
    r.outcomes = {"new" if size >= len(r.payload) else "old"}


def inject(fault):
    """A step of the replacement fails, after all bytes have been received."""

    def play(r):
        r.command = [
            "strace",
            "-D",
            "-f",
            "-o",
            "/dev/null",
            "-e",
            f"inject={fault(r)}:when=1",
            r.machine.launcher_path,
        ]

    return play


def failing_call(r):
    return f"{r.rng.choice(['fsync', 'chmod', 'rename'])}:error={r.rng.choice(['ENOSPC', 'EIO'])}"


def refused_flush(r):
    return f"fsync:error={r.rng.choice(['EOPNOTSUPP', 'ENOTTY', 'EINVAL'])}"


def no_descriptors(r):
    def limit(_):
        (launcher,) = processes("Korvane")
        used = 1 + max(int(name) for name in os.listdir(f"/proc/{launcher}/fd"))
        resource.prlimit(launcher, resource.RLIMIT_NOFILE, (used + r.rng.randrange(4), 4096))

    r.asked("version", limit)
    latest = time.monotonic() + 9
    r.done = lambda: AGENT.exists() or time.monotonic() > latest


def vanish(r):
    def fault(handler, content):
        handler.head(200, len(content))
        handler.wfile.write(content[: r.offset])
        shutil.rmtree(r.folder)
        handler.wfile.write(content[r.offset :])

    r.service.faults["download"] = fault


def read_only(r, folder):
    folder.chmod(0o555)
    r.undo(folder.chmod, 0o755)


def become_folder(r):
    r.target.unlink()
    r.target.mkdir()
    r.undo(r.target.rmdir)


def kill_anywhere(r):
    delay, r.done = r.rng.uniform(0, 7), lambda: False
    r.launched = lambda launcher: (time.sleep(delay), launcher.kill())


def kill_during_download(r):
    r.service.faults["download"] = net.stall(r.offset)
    delay, r.done = r.rng.uniform(0, 0.3), lambda: False
    r.launched = lambda launcher: (r.service.wait_for("download"), time.sleep(delay), launcher.kill())


def lose_display(r):
    name, display = r.machine.start_display()
    delay = r.rng.uniform(0.5, 7)
    r.command, r.done = ["env", f"DISPLAY={name}", r.machine.launcher_path], lambda: False
    r.launched = lambda launcher: (time.sleep(delay), display.kill())


def two_launchers(r):
    LOCK.touch(0o600)
    r.machine.launch()
    r.done = lambda: len(r.service.order()) == 6 and AGENT.exists()


def companion_dies(r):
    r.machine.start_companion()
    r.asked("version", lambda _: clear_away("KR"))


def deaf_companion(r):
    r.machine.start(["sh", "-c", "trap '' TERM; while :; do sleep 1000; done", "KR"])


def tool(name, body=None):
    return lambda r: sandbox.lay_tool(name, body) if body else (TOOLS / name).unlink()


def odd(path, form, rng):
    path.unlink(missing_ok=True)
    if form == "pipe":
        os.mkfifo(path)
    elif form == "folder":
        path.mkdir()
    elif form == "endless line":
        with open(path, "wb") as file:
            file.truncate(1 << 30)
    elif form == "unreadable":
        path.touch(0)
    else:
        path.write_bytes(rng.randbytes(5000).replace(b"\n", b"") + b"\0" if form == "binary" else form)


def marker(form):
    def play(r):
        odd(r.machine.marker, form, r.rng)
        installed = 0
        if r.machine.marker.is_file():
            with open(r.machine.marker, "rb") as file:
                found = re.match(rb"\s*([+-]?\d+)(?:\.\s*([+-]?\d+))?", file.read(8192))
            installed = int(found[1]) * 1000 + int(found[2] or 0) if found else 0
        if installed < 2006:
            r.expect(**NEW)
        r.expect(starts=int(installed < 2006), status=255 if installed < 2005 else None)

    return play


def flag(form):
    def play(r):
        odd(r.machine.flag, form, r.rng)
        # The thread reads it for the first time 3 s after start-up.
        r.expect(**NEW, done=lambda: AGENT.exists() and time.time() > AGENT.stat().st_mtime + 4)

    return play


NEW = {"outcomes": {"new"}, "downloads": 1}
NOT_ASKED = {"downloads": 0}
BROKEN_OFF = {"reset": net.reset, "stalled": net.stall, "cut": net.cut, "chunked and cut": net.chunked_cut}
ODD = ("pipe", "folder", "endless line", "unreadable", "binary")
FAULTS = {
    f"download: {name}": serve("download", lambda r, make=make: make(r.offset)) for name, make in BROKEN_OFF.items()
}
FAULTS |= {f"version: {name}": break_off(make) for name, make in BROKEN_OFF.items()}
FAULTS |= {f"marker: {form}": marker(form) for form in ODD}
FAULTS |= {f"flag: {form}": flag(form) for form in ODD}
for name in ("expired", "self-signed", "wrong-host"):
    FAULTS[f"certificate: {name}"] = do(lambda r, name=name: setattr(r.service, "certificate", name), starts=0)
FAULTS |= {
    "none": do(lambda r: None, **NEW),
    "version: redirect": break_off(lambda _: net.redirect),
    "version: empty": serve("version", lambda r: net.body(b""), starts=0),
    "version: dripping": serve("version", lambda r: net.drip(8), starts=0),
    "version: error with a page": serve("version", lambda r: net.page, starts=0),
    "version: error with a version": serve("version", lambda r: net.status(500), **NEW),
    "version: endless": serve("version", lambda r: net.endless, starts=0),
    "version: too long": serve("version", lambda r: net.body(b'"9' * 40_000), starts=0),
    "download: redirect": serve("download", lambda r: net.redirect, downloads=1),
    "download: empty": serve("download", lambda r: net.body(b"")),
    "download: dripping": serve("download", lambda r: net.drip(0.05)),
    "download: error with a body": serve("download", lambda r: net.status(r.rng.choice([201, 206, 404, 500, 503]))),
    "download: refused": do(
        lambda r: (r.asked("version", lambda _: r.service.listen(False)), r.undo(r.service.listen, True))
    ),
    "certificate: changes": do(
        lambda r: r.asked("version", lambda _: setattr(r.service, "certificate", "self-signed"))
    ),
    "handshake: never ends": serve("connect", lambda r: net.silent_handshake, starts=0),
    "handshake: reset": serve("connect", lambda r: net.reset_handshake, starts=0),
    "name: does not resolve": do(unresolved, starts=0),
    "disk: full": full_disk,
    "disk: a call fails": inject(failing_call),
    "disk: refuses to flush its cache": do(inject(refused_flush), **NEW),
    "disk: no descriptors": do(no_descriptors, outcomes={"old", "new"}, starts=None),
    "folder: read-only": do(lambda r: read_only(r, r.folder), **NOT_ASKED),
    "folder: in the target's place": do(become_folder, outcomes={"folder"}, **NOT_ASKED),
    "folder: missing": do(lambda r: shutil.rmtree(r.folder), outcomes={"absent"}, **NOT_ASKED),
    "folder: vanishes": do(vanish, outcomes={"absent"}),
    "target: missing": do(lambda r: r.target.unlink(), **NEW),
    "LaunchAgents: read-only": do(lambda r: read_only(r, AGENT.parent), **NEW, done=None),
    "killed: anywhere": do(kill_anywhere, outcomes={"old", "new"}, starts=None, status=-9),
    "killed: in the download": do(kill_during_download, starts=0, status=-9),
    "display lost": do(lose_display, outcomes={"old", "new"}, starts=None, status=1),
    # Either's pkill may end the other's start command.
    "two launchers, no lock": do(two_launchers, outcomes={"new"}, starts=None),
    "pkill: missing": do(tool("pkill"), **NEW),
    "pkill: fails": do(tool("pkill", "exit 3"), **NEW),
    "open: missing": do(tool("open"), **NEW, starts=0),
    "open: fails": do(tool("open", "exit 1"), **NEW),
    "companion: dies": do(companion_dies, **NEW),
    "companion: ignores SIGTERM": do(deaf_companion, **NEW),
    "marker: equal": marker(b"  +2.6.9\r\n"),
    "marker: far ahead": marker(b"9" * 4000),
}


def lay_old(target, times):
    target.write_bytes(OLD)
    target.chmod(0o700)
    os.utime(target, ns=times)
    own(target.parent)


def snapshot(machine):
    """Everything in the install folder but the target, its staging files and what rounds make odd."""

    def describe(path):
        return path.lstat().st_mode, hashlib.sha256(path.read_bytes()).digest() if path.is_file() else None

    return {
        path: describe(path)
        for path in machine.folder.rglob("*")
        if machine.companion.parent not in (path, *path.parents) and path not in (machine.marker, machine.flag)
    }


def staging(machine):
    return set(machine.folder.rglob("*.download.*"))


def check(condition, promise):
    if not condition:
        raise AssertionError(promise)


def begin(machine):
    """Brings the machine to where every round starts: with what a launcher killed in a download has left behind."""
    machine.service.faults.clear()
    machine.service.requests.clear()
    machine.service.certificate = "good"
    for path in (machine.marker, machine.flag, AGENT, LOCK, *staging(machine)):
        shutil.rmtree(path) if path.is_dir() else path.unlink(missing_ok=True)
    machine.marker.write_text("2.5\n")
    sandbox.lay_tools()
    machine.companion.parent.mkdir(exist_ok=True)
    machine.companion.with_name("KR.download.killed").write_bytes(OLD[:300])
    lay_old(machine.companion, (10**18, 10**18))


def clear_away(name):
    for pid in processes(name):
        os.kill(pid, 9)
    until(lambda: not processes(name), "the end of the round")


def outcome(r):
    if not r.target.exists():
        return "absent"
    if r.target.is_dir():
        return "folder"
    content, status = r.target.read_bytes(), r.target.stat()
    if content == OLD:
        check(
            (status.st_mode, status.st_mtime_ns) == (0o100700, 10**18), "the old executable's mode or times changed"
        )
        return "old"
    check(content == r.payload and status.st_mode == 0o100755, "the installed executable is damaged")
    return "new"


def play(machine, fault, rng):
    """One round; returns the outcome, or raises when a promise is broken."""
    begin(machine)
    with contextlib.ExitStack() as undo:
        r = Round(machine, rng, undo)
        machine.offer("2.6", payload=r.payload)
        FAULTS[fault](r)
        done = r.done or (lambda: "Korvane_CAP" in r.service.order())
        before, leftovers = snapshot(machine), staging(machine)
        launcher = machine.launch(command=r.command, environment=machine.environment | {"PATH": sandbox.TOOLS_PATH})
        threading.Thread(target=r.launched, args=[launcher], daemon=True).start()
        until(lambda: done() or launcher.poll() is not None, "a launcher that hangs", ROUND_SECONDS)
        check(launcher.poll() == r.status, f"the launcher's status is {launcher.poll()}, not {r.status}")
        clear_away("Korvane")
        launcher.wait()

        found, opened, downloads = outcome(r), len(calls("open")), r.service.order().count("download")
        check(found in r.outcomes, f"the executable is {found}, not in {r.outcomes}")
        check(r.starts in (None, opened), f"the start command ran {opened} times, not {r.starts}")
        check(r.downloads in (None, downloads), f"the executable was asked for {downloads} times, not {r.downloads}")
        left = staging(machine) - (leftovers if found != "new" else set())
        check(r.status == -9 or not left, f"staging files are left: {left}")
        check(snapshot(machine) == before, "something else has changed")
        peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        check(peak < PEAK_KIB, f"a launcher took {peak} KiB of memory")
        clear_away("KR")
        return found


def supervise(machine, rng, cycles):
    """One launcher through many cycles in quick time, each with a companion that died and a download fault."""
    begin(machine)
    machine.offer("2.6", payload=sandbox.companion_program("2.6", 50_000))
    kinds = [net.reset(700), net.cut(700), net.chunked_cut(700), net.status(500), net.body(b""), None]
    launcher = machine.launch(quickly=True, environment=machine.environment | {"PATH": sandbox.TOOLS_PATH})
    usage = []
    for cycle in range(cycles):
        machine.service.faults["download"] = rng.choice(kinds)
        until(lambda: len(calls("open")) == cycle + 1, "the start command runs after every download")
        until(companions, "the companion runs")
        clear_away("KR")
        status = pathlib.Path(f"/proc/{launcher.pid}/status").read_text()
        memory = sum(int(line.split()[1]) for line in status.splitlines() if line.startswith(("RssAnon", "VmData")))
        usage.append((memory, len(os.listdir(f"/proc/{launcher.pid}/fd"))))
        print(cycle, "supervision cycle", "started again", sep="\t", flush=True)
    settled = usage[len(usage) // 4]
    check(usage[-1][1] <= settled[1] + 3, f"descriptors grow: {settled} to {usage[-1]}")
    check(usage[-1][0] <= settled[0] + 4096, f"memory (KiB) grows: {settled} to {usage[-1]}")
    machine.flag.write_text("1\n")
    own(machine.flag)
    check(launcher.wait(60) == 0, "the flag ends the launcher with 0")
    check(not staging(machine), "a staging file is left over")


def main():
    seed, rounds, worker, workers, cycles = map(int, sys.argv[1:6])
    plan = [fault for fault in sys.argv[6:] or FAULTS for _ in range(rounds)]
    random.Random(seed).shuffle(plan)
    with Machine() as machine:
        number, fault = None, None
        try:
            for number in range(worker, len(plan), workers):
                fault = plan[number]
                print(number, fault, play(machine, fault, random.Random(f"{seed} {number}")), sep="\t", flush=True)
            if cycles:
                fault = "supervision"
                supervise(machine, random.Random(f"{seed} {worker}"), cycles)
        except BaseException:
            print(f"BROKEN\tseed {seed}, round {number}: {fault}\n{traceback.format_exc()}", flush=True)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
