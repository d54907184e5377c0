"""The fault campaign, inside a sandbox: a table of faults, and the promises that hold after every round.

    campaign.py SEED ROUNDS WORKER WORKERS CYCLES

Plays this worker's share of ROUNDS rounds of every fault, then CYCLES supervision cycles in one launcher, and writes a
line for each. Stops at the first broken promise with exit status 1. script/torture runs it.
"""
import contextlib
import hashlib
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

import service as net
from machine import (
    AGENT,
    LOCK,
    TOOLS,
    TOOLS_PATH,
    Machine,
    calls,
    companion_program,
    companions,
    lay_tool,
    lay_tools,
    own,
    processes,
    until,
)

HOSTS = pathlib.Path("/etc/hosts")
OLD = companion_program("2.5")
ROUND_SECONDS = 200  # the mandated pauses and every time limit, one after another, with room to spare


class Round:
    """One round: what is expected of it unless its fault says otherwise, and what the faults are made with."""

    outcomes = {"old"}  # of the installed executable: "old", "new", "absent", "folder"
    starts = 1  # how often the start command runs; None: it depends
    status = None  # of the launcher; None: it lives
    command = None  # what starts the launcher, if not its own path

    def __init__(self, machine, rng, undo):
        self.machine, self.rng, self.undo, self.service = machine, rng, undo.callback, machine.service
        self.payload = companion_program("2.6", rng.choice([700, rng.randrange(1000, 400_000)]))
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


def unresolved(r):
    r.undo(HOSTS.write_text, HOSTS.read_text())
    HOSTS.write_text("")


def full_disk(r):
    status, size = r.target.stat(), 4096 * r.rng.randrange(1, len(r.payload) // 4096 + 3)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size + 4096},uid=1000", "none", r.folder], check=True)
    r.undo(subprocess.run, ["umount", "-l", r.folder], check=True)
    lay_old(r.target, (status.st_atime_ns, status.st_mtime_ns))
    r.outcomes = {"new" if size >= len(r.payload) else "old"}


def failing_call(r):
    """A step of the replacement fails, after all bytes have been received."""
    call, error = r.rng.choice(["fsync", "chmod", "rename"]), r.rng.choice(["ENOSPC", "EIO"])
    r.command = [
        "strace",
        "-f",
        "-o",
        "/dev/null",
        "-e",
        f"inject={call}:error={error}:when=1",
        r.machine.launcher_path,
    ]


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


def tool(name, body=None):
    def play(r):
        lay_tool(name, body) if body else (TOOLS / name).unlink()

    return play


def flicker(r):
    def flickers(_):
        until(AGENT.exists, "start-up is complete")
        for _ in range(200):
            r.machine.flag.write_text(r.rng.choice(["", "0\n", "1x", "\n1"]))
            time.sleep(0.02)
            r.machine.flag.unlink(missing_ok=True)

    r.launched = flickers
    flag_is_read(r)


def flag_is_read(r):
    r.done = lambda: AGENT.exists() and time.time() > AGENT.stat().st_mtime + 4  # the first time 3 s after start-up


def odd(path, form, rng):
    path.unlink(missing_ok=True)
    if form == "pipe":
        os.mkfifo(path)
    elif form == "folder":
        path.mkdir()
    elif form == "huge":
        with open(path, "wb") as file:
            file.truncate(1 << 40)
    elif form == "unreadable":
        path.touch(0)
    else:
        path.write_bytes(form or rng.randbytes(5000).replace(b"\n", b"") + b"\0")


HTTP_FAULTS = {
    "reset": net.reset,
    "stalled": net.stall,
    "cut": net.cut,
    "chunked and cut": net.chunked_cut,
    "empty": lambda _: net.body(b""),
    "redirect": lambda _: net.redirect,
}
NEW, ODD = {"outcomes": {"new"}}, ("pipe", "folder", "huge", "unreadable", None)
FAULTS = {
    f"download: {name}": serve("download", lambda r, make=make: make(r.offset)) for name, make in HTTP_FAULTS.items()
}
FAULTS |= {
    f"version: {name}": serve("version", lambda r, make=make: make(r.offset % 5), starts=0)
    for name, make in HTTP_FAULTS.items()
}
FAULTS |= {
    f"certificate: {name}": do(lambda r, name=name: setattr(r.service, "certificate", name), starts=0)
    for name in ("expired", "self-signed", "wrong-host")
}
FAULTS |= {
    f"marker: {form or 'binary'}": do(lambda r, form=form: odd(r.machine.marker, form, r.rng), **NEW, status=255)
    for form in ODD
}  # what counts as 0.0 is outdated
FAULTS |= {
    f"flag: {form or 'binary'}": do(lambda r, form=form: (odd(r.machine.flag, form, r.rng), flag_is_read(r)), **NEW)
    for form in ODD
}
FAULTS |= {
    "none": do(lambda r: None, **NEW),
    "version: dripping": serve("version", lambda r: net.drip(8), starts=0),
    "version: error with a page": serve("version", lambda r: net.page, starts=0),
    "version: error with a version": serve("version", lambda r: net.status(500), **NEW),
    "version: endless": serve("version", lambda r: net.endless, starts=0),
    "version: too long": serve("version", lambda r: net.body(b'"9' * 40_000), starts=0),
    "download: dripping": serve("download", lambda r: net.drip(0.05)),
    "download: error with a body": serve("download", lambda r: net.status(r.rng.choice([201, 206, 404, 500, 503]))),
    "download: refused": do(
        lambda r: (r.asked("version", lambda _: r.service.listen(False)), r.undo(r.service.listen, True))
    ),
    "certificate: changes": do(
        lambda r: r.asked("version", lambda h: setattr(r.service, "certificate", "self-signed"))
    ),
    "handshake: never ends": serve("connect", lambda r: net.silent_handshake, starts=0),
    "handshake: reset": serve("connect", lambda r: net.reset_handshake, starts=0),
    "name: does not resolve": do(unresolved, starts=0),
    "disk: full": full_disk,
    "disk: a call fails": failing_call,
    "disk: no descriptors": do(no_descriptors, outcomes={"old", "new"}, starts=None),
    "folder: read-only": do(lambda r: read_only(r, r.folder)),
    "folder: in the target's place": do(become_folder, outcomes={"folder"}),
    "folder: missing": do(lambda r: shutil.rmtree(r.folder), outcomes={"absent"}),
    "folder: vanishes": do(vanish, outcomes={"absent"}),
    "target: missing": do(lambda r: r.target.unlink(), **NEW),
    "LaunchAgents: read-only": do(lambda r: read_only(r, AGENT.parent), **NEW, done=None),
    "killed: anywhere": do(kill_anywhere, outcomes={"old", "new"}, starts=None, status=-9),
    "killed: in the download": do(kill_during_download, starts=0, status=-9),
    "display lost": do(lose_display, outcomes={"old", "new"}, starts=None, status=1),
    "two launchers, no lock": do(two_launchers, **NEW, starts=None),  # either's pkill may end the other's start command
    "pkill: missing": do(tool("pkill"), **NEW),
    "pkill: fails": do(tool("pkill", "exit 3"), **NEW),
    "open: missing": do(tool("open"), **NEW, starts=0),
    "open: fails": do(tool("open", "exit 1"), **NEW),
    "companion: dies": do(
        lambda r: (r.machine.start_companion(), r.asked("version", lambda _: clear_away("KR"))), **NEW
    ),
    "companion: ignores SIGTERM": do(
        lambda r: r.machine.start(["sh", "-c", "trap '' TERM; while :; do sleep 1000; done", "KR"]), **NEW
    ),
    "marker: equal": do(lambda r: odd(r.machine.marker, b"  +2.6.9\r\n", r.rng), starts=0),
    "marker: far ahead": do(lambda r: odd(r.machine.marker, b"9" * 5000, r.rng), starts=0),
    "flag: flickers": do(flicker, **NEW),
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
    return list(machine.folder.rglob("*.download.*"))


def check(condition, promise):
    if not condition:
        raise AssertionError(promise)


def begin(machine):
    """Brings the machine back to where every round starts."""
    machine.service.faults.clear()
    machine.service.requests.clear()
    machine.service.certificate = "good"
    for path in (machine.marker, machine.flag, AGENT, LOCK):
        shutil.rmtree(path) if path.is_dir() else path.unlink(missing_ok=True)
    machine.marker.write_text("2.5\n")
    lay_tools()
    machine.companion.parent.mkdir(exist_ok=True)
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
        launcher = machine.launch(command=r.command, environment=machine.environment | {"PATH": TOOLS_PATH})
        threading.Thread(target=r.launched, args=[launcher], daemon=True).start()
        until(lambda: done() or launcher.poll() is not None, "a launcher that hangs", ROUND_SECONDS)
        check(launcher.poll() == r.status, f"the launcher's status is {launcher.poll()}, not {r.status}")
        clear_away("Korvane")

        found, opened = outcome(r), len(calls("open"))
        check(found in r.outcomes, f"the executable is {found}, not in {r.outcomes}")
        check(r.starts in (None, opened), f"the start command ran {opened} times, not {r.starts}")
        check(
            r.status == -9 or set(staging(machine)) <= set(leftovers if found != "new" else []),
            "a staging file is left",
        )
        check(snapshot(machine) == before, "something else has changed")
        clear_away("KR")
        return found


def supervise(machine, rng, cycles):
    """One launcher through many cycles in quick time, each with a companion that died and a download fault."""
    begin(machine)
    machine.offer("2.6", payload=companion_program("2.6", 50_000))
    kinds = [net.reset(700), net.cut(700), net.chunked_cut(700), net.status(500), net.body(b""), None]
    launcher = machine.launch(
        command=["faketime", "-m", "-f", "+0 x20", machine.launcher_path],
        environment=machine.environment | {"PATH": TOOLS_PATH},
    )
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
    check(not staging(machine) and not companions(), "a process or a staging file is left over")


def main():
    seed, rounds, worker, workers, cycles = map(int, sys.argv[1:])
    plan = [fault for fault in FAULTS for _ in range(rounds)]
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
