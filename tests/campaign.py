"""The fault campaign, inside a sandbox: a table of faults, and the promises that hold after every round.

    campaign.py SEED ROUNDS WORKER WORKERS CYCLES

Plays this worker's share of ROUNDS rounds of every fault, then CYCLES supervision cycles in one launcher. Writes a line
"round fault outcome" for each, and stops at the first broken promise with exit status 1. script/torture runs it.
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

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "sandbox"))
import service as net
from machine import AGENT, LOCK, Machine, companion_program, companions, end, own, processes, until

BIN = pathlib.Path("/tmp/bin")
OPENED = pathlib.Path("/tmp/opened")
ROUND_SECONDS = 200  # the mandated pauses and every time limit, one after another, with room to spare


class Round:
    """What a fault may change: the surroundings before the start, and what is expected afterwards."""

    def __init__(self, machine, rng):
        self.machine, self.rng = machine, rng
        self.payload = companion_program("2.6", rng.choice([700, rng.randrange(1000, 400_000)]))
        self.offset = rng.randrange(len(self.payload))
        self.outcomes = {"old"}  # of "old", "new", "absent"
        self.starts = 1  # how often the start command runs
        self.statuses = {None}  # of the launcher; None: it lives
        self.command = None
        self.when_launched = lambda launcher: None
        self.done = AGENT.exists  # the last thing that start-up does

    def at(self, what, action):
        """Does something when the service is asked, before it answers well."""
        def fault(handler, content):
            action(handler)
            handler.send(200, content)
        self.machine.service.faults[what] = fault


def version(fault, starts=0, outcomes=("old",)):
    def play(this):
        this.machine.service.faults["version"] = fault(this)
        this.starts, this.outcomes = starts, set(outcomes)
    return play


def download(fault, outcomes=("old",)):
    def play(this):
        this.machine.service.faults["download"] = fault(this)
        this.outcomes = set(outcomes)
    return play


def connection(fault):
    def play(this):
        this.machine.service.faults["connect"] = fault
        this.starts = 0
    return play


def certificate(name, late):
    def play(this):
        service = this.machine.service
        if late:
            this.at("version", lambda handler: setattr(service, "certificate", name))
        else:
            service.certificate, this.starts = name, 0
    return play


def unresolved(this):
    hosts = pathlib.Path("/etc/hosts")
    this.machine.undo(hosts.write_text, hosts.read_text())
    hosts.write_text("")
    this.starts = 0


def refused(this):
    this.at("version", lambda handler: this.machine.service.listen(False))
    this.machine.undo(this.machine.service.listen, True)


def disk_full(this):
    folder = this.machine.companion.parent
    size = max(4096, this.rng.randrange(len(this.payload) + 8192) // 4096 * 4096)
    before = this.machine.companion.stat()
    content = this.machine.companion.read_bytes()
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size + 4096},uid=1000,mode=755", "none", str(folder)], check=True)
    this.machine.undo(subprocess.run, ["umount", "-l", str(folder)], check=True)
    restore(this.machine.companion, content, before)
    this.outcomes = {"new"} if size >= len(this.payload) else {"old"}


def failing_call(this):
    """A step of the replacement fails, after all bytes have been received."""
    call, error = this.rng.choice(["fsync", "chmod", "rename"]), this.rng.choice(["ENOSPC", "EIO"])
    this.command = ["strace", "-f", "-o", "/dev/null", "-e", f"trace={call}", "-e", f"inject={call}:error={error}:when=1",
                    str(this.machine.launcher_path)]


def no_descriptors(this):
    def limit(handler):
        launcher, = processes("Korvane")
        used = 1 + max(int(fd.name) for fd in pathlib.Path(f"/proc/{launcher}/fd").iterdir())
        resource.prlimit(launcher, resource.RLIMIT_NOFILE, (used + this.rng.randrange(4), 4096))
    this.at("version", limit)
    this.outcomes, this.starts = {"old", "new"}, None
    this.done = lambda: "Korvane_CAP" in this.machine.service.order() or AGENT.exists() or time.monotonic() > this.latest
    this.latest = time.monotonic() + 9


def folder(change, outcomes):
    def play(this):
        change(this)
        this.outcomes = outcomes
    return play


def read_only(this):
    parent = this.machine.companion.parent
    parent.chmod(0o555)
    this.machine.undo(parent.chmod, 0o755)


def become_directory(this):
    this.machine.companion.unlink()
    (this.machine.companion / "inside").mkdir(parents=True)
    this.machine.undo(shutil.rmtree, this.machine.companion)


def vanish_during_download(this):
    def fault(handler, content):
        handler.head(200, len(content))
        handler.wfile.write(content[:this.offset])
        shutil.rmtree(this.machine.companion.parent)
        handler.wfile.write(content[this.offset:])
    this.machine.service.faults["download"] = fault


def killed(this):
    delay = this.rng.uniform(0, 7)
    this.outcomes, this.starts, this.statuses = {"old", "new"}, None, {-9}
    this.when_launched = lambda launcher: (time.sleep(delay), launcher.kill())


def killed_during_download(this):
    service = this.machine.service
    service.faults["download"] = net.stall(this.offset)
    this.starts, this.statuses = 0, {-9}

    def kill(launcher):
        service.wait_for("download")
        time.sleep(this.rng.uniform(0, 0.3))
        launcher.kill()
    this.when_launched = kill


def display_lost(this):
    name, process = this.machine.start_display()
    delay = this.rng.uniform(0.5, 7)
    this.command = ["env", f"DISPLAY={name}", str(this.machine.launcher_path)]
    this.outcomes, this.statuses = {"new"}, {1}
    this.done = lambda: False
    this.when_launched = lambda launcher: (time.sleep(delay), process.kill())


def two_without_lock(this):
    LOCK.touch(0o600)
    this.machine.launch()
    this.outcomes, this.starts = {"new"}, None  # either's pkill may end the other's start command
    this.done = lambda: len(this.machine.service.order()) == 6 and AGENT.exists()


def tool(name, body, starts=1):
    def play(this):
        (BIN / name).unlink(missing_ok=True)
        if body:
            script(name, body)
        this.machine.undo(lay_tools)
        this.outcomes, this.starts = {"new"}, starts
    return play


def companion_dies(this):
    pid = this.machine.start_companion()
    this.at("version", lambda handler: os.kill(pid, 9) if pid in companions() else None)
    this.outcomes = {"new"}


def companion_ignores_terminate(this):
    pid = this.machine.start_companion()
    os.kill(pid, 9)
    this.machine.start(["sh", "-c", "trap '' TERM; while :; do sleep 1000; done", "KR"])
    this.outcomes = {"new"}


def marker(form, expected="new"):
    def play(this):
        odd_file(this.machine.marker, form, this.rng)
        this.outcomes, this.starts = {expected}, int(expected == "new")
        if expected == "new":
            this.statuses = {255}  # what counts as 0.0 is outdated
    return play


def flag(form):
    """The flag is read 3 s after start-up; nothing but "1" may matter. The round goes on until then."""
    def play(this):
        odd_file(this.machine.flag, form, this.rng)
        this.outcomes = {"new"}
        this.done = lambda: AGENT.exists() and time.time() > AGENT.stat().st_mtime + 4
    return play


def flag_flickers(this):
    def flicker(launcher):
        until(AGENT.exists, "start-up is complete")
        for _ in range(200):
            this.machine.flag.write_text(this.rng.choice(["", "0\n", "1x", "\n1"]))
            time.sleep(0.02)
            this.machine.flag.unlink(missing_ok=True)
    this.outcomes, this.when_launched = {"new"}, flicker


def agents_read_only(this):
    AGENT.parent.chmod(0o555)
    this.machine.undo(AGENT.parent.chmod, 0o755)
    this.outcomes = {"new"}
    this.done = lambda: "Korvane_CAP" in this.machine.service.order()


def odd_file(path, form, rng):
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
        path.write_bytes({"binary": rng.randbytes(5000).replace(b"\n", b"") + b"\0", "empty": b"",
                          "equal": b"  +2.6.9\r\n", "far ahead": b"9" * 5000}[form])


FAULTS = {
    "version: reset": version(lambda r: net.reset(0)), "version: empty": version(lambda r: net.body(b"")),
    "version: stalled": version(lambda r: net.stall(1)), "version: dripping": version(lambda r: net.drip(8)),
    "version: cut": version(lambda r: net.cut(3)), "version: chunked and cut": version(lambda r: net.chunked_cut(3)),
    "version: error with a page": version(lambda r: lambda h, c: h.send(500, b"<html>sorry")),
    "version: error with a version": version(lambda r: net.status(500), 1, ["new"]),
    "version: redirect": version(lambda r: lambda h, c: h.send(302, b"", Location=net.VERSION_PATH + "2")),
    "version: endless": version(lambda r: net.endless), "version: too long": version(lambda r: net.body(b'"9' * 40_000)),
    "download: reset": download(lambda r: net.reset(r.offset)), "download: stalled": download(lambda r: net.stall(r.offset)),
    "download: dripping": download(lambda r: net.drip(0.05)), "download: cut": download(lambda r: net.cut(r.offset)),
    "download: chunked and cut": download(lambda r: net.chunked_cut(r.offset)),
    "download: error with a body": download(lambda r: net.status(r.rng.choice([201, 206, 403, 404, 500, 503]))),
    "download: redirect": download(lambda r: net.status(302, Location="/elsewhere")),
    "download: empty": download(lambda r: net.body(b"")), "download: good": download(lambda r: None, ["new"]),
    "download: refused": refused, "handshake: never ends": connection(net.silent_handshake),
    "handshake: reset": connection(net.reset_handshake), "name does not resolve": unresolved,
    "certificate: expired": certificate("expired", False), "certificate: self-signed": certificate("self-signed", False),
    "certificate: wrong host": certificate("wrong-host", False),
    "certificate: self-signed later": certificate("self-signed", True),
    "disk: full": disk_full, "disk: a call fails": failing_call, "disk: no descriptors": no_descriptors,
    "folder: read-only": folder(read_only, {"old"}), "folder: target is one": folder(become_directory, {"folder"}),
    "folder: missing": folder(lambda r: shutil.rmtree(r.machine.companion.parent), {"absent"}),
    "folder: goes during download": folder(vanish_during_download, {"absent"}),
    "target: missing": folder(lambda r: r.machine.companion.unlink(), {"new"}),
    "killed": killed, "killed during download": killed_during_download, "display lost": display_lost,
    "two launchers, no lock": two_without_lock, "pkill missing": tool("pkill", None), "pkill fails": tool("pkill", "exit 3"),
    "open missing": tool("open", None, starts=0), "open fails": tool("open", "echo >>/tmp/opened; exit 1"),
    "companion dies": companion_dies, "companion ignores SIGTERM": companion_ignores_terminate,
    "marker: pipe": marker("pipe"), "marker: folder": marker("folder"), "marker: huge": marker("huge"),
    "marker: binary": marker("binary"), "marker: unreadable": marker("unreadable"), "marker: empty": marker("empty"),
    "marker: equal": marker("equal", "old"), "marker: far ahead": marker("far ahead", "old"),
    "flag: pipe": flag("pipe"), "flag: folder": flag("folder"), "flag: huge": flag("huge"), "flag: binary": flag("binary"),
    "flag: unreadable": flag("unreadable"), "flag: flickers": flag_flickers, "LaunchAgents: read-only": agents_read_only,
}


def script(name, body):
    (BIN / name).write_text(f"#!/bin/sh\n{body}\n")
    (BIN / name).chmod(0o755)


def lay_tools():
    """The only tools on the launcher's PATH; "open" is counted."""
    BIN.mkdir(exist_ok=True)
    script("open", 'echo >>/tmp/opened; exec /build/compat/open "$@"')
    for name in ("pgrep", "pkill"):
        script(name, f'exec /usr/bin/{name} "$@"')


def restore(path, content, status):
    path.write_bytes(content)
    path.chmod(status.st_mode & 0o7777)
    os.utime(path, ns=(status.st_atime_ns, status.st_mtime_ns))
    os.chown(path, 1000, 1000)


def snapshot(machine):
    """Everything in the install folder but the target and its staging files."""
    def describe(path):
        status = path.lstat()
        content = hashlib.sha256(path.read_bytes()).digest() if path.is_file() and status.st_size < 1 << 30 else None
        return status.st_mode, content
    return {path: describe(path) for path in machine.folder.rglob("*")
            if not str(path).startswith(str(machine.companion)) and path not in (machine.marker, machine.flag)}


def staging(machine):
    return [path for path in machine.folder.rglob("*.download.*")]


def check(condition, promise):
    if not condition:
        raise AssertionError(promise)


def play(machine, fault, rng):
    """One round; returns the outcome, or raises when a promise is broken."""
    service = machine.service
    service.faults.clear()
    service.requests.clear()
    service.certificate = "good"
    for path in (machine.marker, machine.flag):
        shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink(missing_ok=True)
    for path in (AGENT, LOCK, OPENED):
        path.unlink(missing_ok=True)
    machine.marker.write_text("2.5\n")
    machine.companion.parent.mkdir(exist_ok=True)
    machine.companion.write_bytes(companion_program("2.5"))
    machine.companion.chmod(0o700)
    own(machine.folder)
    OPENED.touch()
    OPENED.chmod(0o666)
    before = machine.companion.stat()

    with contextlib.ExitStack() as undo:
        machine.undo = undo.callback
        this = Round(machine, rng)
        machine.offer("2.6", payload=this.payload)
        FAULTS[fault](this)
        untouched = snapshot(machine)
        launcher = machine.launch(command=this.command, environment=machine.environment | {"PATH": f"{BIN}:/bin"})
        threading.Thread(target=this.when_launched, args=[launcher], daemon=True).start()
        until(lambda: this.done() or launcher.poll() is not None, "a launcher that hangs", ROUND_SECONDS)
        check(launcher.poll() in this.statuses, f"the launcher's status is {launcher.poll()}, not in {this.statuses}")
        for pid in processes("Korvane"):
            os.kill(pid, 9)
        until(lambda: not processes("Korvane"), "the end of the round")

        outcome = "absent"
        if machine.companion.is_dir():
            outcome = "folder"
        elif machine.companion.exists():
            content, status = machine.companion.read_bytes(), machine.companion.stat()
            if content == companion_program("2.5"):
                outcome = "old"
                check((status.st_mode, status.st_mtime_ns) == (before.st_mode, before.st_mtime_ns), "mode or times changed")
            else:
                check(content == this.payload and status.st_mode == 0o100755, "the installed executable is damaged")
                outcome = "new"
        check(outcome in this.outcomes, f"the executable is {outcome}, not in {this.outcomes}")
        opened = len(OPENED.read_text().splitlines())
        check(this.starts in (None, opened), f"the start command ran {opened} times, not {this.starts}")
        check("killed" in fault or not staging(machine), "a staging file is left over")
        gone = {path for path in untouched if not path.exists()} if fault == "folder: goes during download" else set()
        check(snapshot(machine) == {p: d for p, d in untouched.items() if p not in gone}, "something else has changed")
        for pid in companions():
            os.kill(pid, 9)
        return outcome


def supervise(machine, rng, cycles):
    """One launcher through many cycles in quick time, each with a companion that died and a download fault."""
    service = machine.service
    machine.offer("2.6", payload=companion_program("2.6", 50_000))
    kinds = [net.reset(700), net.cut(700), net.chunked_cut(700), net.status(500), net.body(b""), None]
    launcher = machine.launch(command=["faketime", "-m", "-f", "+0 x20", str(machine.launcher_path)],
                              environment=machine.environment | {"PATH": f"{BIN}:/bin:/usr/bin"})
    usage = []
    for cycle in range(cycles):
        service.faults["download"] = rng.choice(kinds)
        service.wait_for("download", cycle + 1)
        until(lambda: len(OPENED.read_text().splitlines()) == cycle + 1, "the start command runs after every download")
        until(companions, "the companion runs")
        for pid in companions():
            os.kill(pid, 9)
        status = pathlib.Path(f"/proc/{launcher.pid}/status").read_text()
        memory = sum(int(line.split()[1]) for line in status.splitlines() if line.startswith(("RssAnon", "VmData")))
        usage.append((memory, len(list(pathlib.Path(f"/proc/{launcher.pid}/fd").iterdir()))))
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
        lay_tools()
        number, fault = None, "the set-up"
        try:
            for number in range(worker, len(plan), workers):
                fault = plan[number]
                print(number, fault, play(machine, fault, random.Random(f"{seed} {number}")), sep="\t", flush=True)
            fault = "supervision"
            if cycles:
                play(machine, "download: good", random.Random(seed))
                OPENED.write_text("")
                for path in (AGENT, LOCK):
                    path.unlink(missing_ok=True)
                machine.service.requests.clear()
                supervise(machine, random.Random(f"{seed} {worker}"), cycles)
        except BaseException:
            print(f"BROKEN\tseed {seed}, round {number}: {fault}\n{traceback.format_exc()}", flush=True)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
