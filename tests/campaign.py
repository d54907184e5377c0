"""A round of the fault campaign, on a machine of its own: one fault, and the promises that hold whatever happens.

    campaign.py SEED FAULT

Prints what has become of the installed executable; ends with status 1 and the reason when a promise is broken. The same
seed plays the same round. script/campaign plays them all.
"""
import contextlib
import dataclasses
import os
import pathlib
import random
import resource
import shutil
import socket
import subprocess
import sys
import threading
import time
import typing

import machine as sandbox
import service
import tools
from machine import AGENT, LOCK, until

ETC = pathlib.Path("/etc")
OLD = sandbox.companion_program("2.5")
ROUND_SECONDS = 110  # the mandated pauses and the longest waits, one after the other, with room to spare
PEAK_KIB = 160 * 1024  # of memory: more than a launcher takes, less than what it is offered


@dataclasses.dataclass
class Fault:
    """What brings a fault about, and what is expected of its rounds."""

    bring_about: typing.Callable
    outcomes: tuple = ("old",)  # of the installed executable: "old", "new", "absent", "folder"
    starts: int = 1  # how often the start command runs; None: it depends
    downloads: int = None  # how often the executable is asked for; None: it depends
    status: int = None  # of the launcher; None: it lives
    limits: tuple = ()  # the seconds after which it goes away from a service that is silent, each time
    long: bool = False  # takes more than half a minute, most of it asleep


class Round:
    """What faults are made with."""

    command = None  # what starts the launcher, if not its own path
    launched = None  # what happens to the launcher while it runs

    def __init__(self, machine, fault):
        self.machine, self.service, self.outcomes = machine, machine.service, fault.outcomes
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


def of_size(size, what, fault=None):
    """An answer of so many bytes: the executable, or a version that goes on in blanks."""

    def bring_about(r):
        r.payload = r.service.payload = sandbox.companion_program("2.6", size if what == "download" else 700)
        if what == "version":
            r.service.versions["KR_CAP"] = b'"2.6' + b" " * (size - 5) + b'"'
        r.service.faults[what] = fault

    return bring_about


def silent_name_servers(r):
    """The system's resolver asks them for almost a minute; start-up is complete when half of that is over."""
    addresses = [f"127.0.0.{number}" for number in (2, 3, 4)]
    servers = [socket.socket(type=socket.SOCK_DGRAM) for _ in addresses]
    for server, address in zip(servers, addresses):
        server.bind((address, 53))
        server.setblocking(False)
    (ETC / "nsswitch.conf").write_text("hosts: dns\n")
    (ETC / "resolv.conf").unlink(missing_ok=True)
    (ETC / "resolv.conf").write_text("search elsewhere.example\nnameserver " + "\nnameserver ".join(addresses))
    queries = []

    def complete():
        for server in servers:
            with contextlib.suppress(BlockingIOError):
                while True:
                    queries.append(server.recv(512))
        # The second half of its queries, of which there are twelve.
        assert sum(b"elsewhere" in query for query in queries) <= 8, "the launcher waits for its resolver"
        return AGENT.exists()

    r.done = complete


def full_disk(r):
    size = 4096 * random.randrange(1, len(r.payload) // 4096 + 3)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size + 4096},uid=1000", "none", r.folder], check=True)
    install_old(r.target)
    r.outcomes = ["new" if size >= len(r.payload) else "old"]


def failing_call(call, error):
    """A step of the replacement fails, after all bytes have been received."""
    strace = f"/usr/bin/strace -D -f -o /dev/null -e inject={call}:error={error}:when=1".split()
    return lambda r: setattr(r, "command", [*strace, r.machine.launcher_path])


def failing_close(r):
    """No file can be closed from the download on: before it, the loader would not start the launcher."""

    def attach(handler, content):
        (launcher,) = sandbox.processes("Korvane")
        inject = ["-e", "inject=close:error=EIO"]
        r.machine.start(["strace", "-qq", "-o", "/dev/null", *inject, "-p", str(launcher)], sandbox.AS_ROOT)
        until(lambda: "TracerPid:\t0\n" not in pathlib.Path(f"/proc/{launcher}/status").read_text(), "it is traced")
        handler.send(200, content)

    r.service.faults["download"] = attach


def become_folder(r):
    r.target.unlink()
    r.target.mkdir()


def of_another_user(r):
    """In a folder where anybody may put files, and only a file's owner may replace it."""
    os.chown(r.folder, 0, 0)
    os.chown(r.target, 0, 0)
    r.folder.chmod(0o1777)


def outlive_its_end(r):
    """A program that goes on running cannot be opened for writing, only replaced."""
    (tools.PATH / "pkill").unlink()
    shutil.copy("/usr/bin/sleep", r.target)
    r.machine.start([r.target, "1000"])


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
NEW = ASKED | {"outcomes": ["new"]}
OUTDATED = NEW | {"status": 255}  # a marker that is no version counts as 0.0
NOT_ASKED = {"downloads": 0}
NO_START = {"starts": 0}
LONG = {"long": True}
ANY = {"outcomes": ["old", "new"], "starts": None}
SILENCE = {"connect": service.no_handshake()}
BROKEN_OFF = {"reset": service.reset, "cut": service.cut, "chunked": service.chunked_cut}


def changed(**changes):
    """A version, and a service that is otherwise from then on."""
    return answer("version", service.and_then(**changes))


FAULTS = {
    "none": Fault(lambda r: None, **NEW),
    "version: late": Fault(answer("version", service.pause(20)), **NEW, **LONG),
    "version: long": Fault(of_size(60 << 10, "version"), **NEW),
    "version: too long": Fault(of_size(1 << 20, "version"), **NO_START),
    "version: endless": Fault(answer("version", service.endless()), **NO_START),
    "version: redirect": Fault(break_off("version", lambda _: service.redirect()), **NO_START),
    "version: stalled": Fault(break_off("version", service.stall), **NO_START, limits=(30, 30), **LONG),
    "version: error with a version": Fault(answer("version", service.status(500)), **NEW),
    "download: empty": Fault(answer("download", service.body(b""))),
    "download: pauses": Fault(of_size(50_000, "download", service.pause(20, 5000)), **NEW),
    "download: slow": Fault(of_size(126_000, "download", service.trickle(2048)), **NEW, **LONG),
    "download: too slow": Fault(of_size(50_000, "download", service.trickle(512)), **LONG),
    "download: redirect": Fault(answer("download", service.redirect()), **ASKED),
    "download: partial": Fault(answer("download", service.status(206))),
    "download: wrong host": Fault(changed(certificate="wrong-host"), **NOT_ASKED),
    "download: self-signed": Fault(changed(certificate="self-signed"), **NOT_ASKED),
    "download: no handshake": Fault(changed(faults=SILENCE), **NOT_ASKED, limits=(15, 15), **LONG),
    "download: stalled": Fault(answer("download", service.stall(500)), **ASKED, limits=(30,), **LONG),
    "handshake: late": Fault(answer("connect", service.late_handshake(10)), **NEW, **LONG),
    "handshake: never ends": Fault(lambda r: r.service.faults.update(SILENCE), **NO_START, limits=(15, 15), **LONG),
    "name: does not resolve": Fault(lambda r: (ETC / "hosts").write_text(""), **NO_START),
    "name: servers are silent": Fault(silent_name_servers, **NO_START, **LONG),
    "disk: full": Fault(full_disk),
    "disk: close fails": Fault(failing_close),
    "folder: read-only": Fault(lambda r: r.folder.chmod(0o555), **NOT_ASKED),
    "folder: in the target's place": Fault(become_folder, **NOT_ASKED | {"outcomes": ["folder"]}),
    "folder: missing": Fault(lambda r: shutil.rmtree(r.folder), **NOT_ASKED | {"outcomes": ["absent"]}),
    "target: missing": Fault(lambda r: r.target.unlink(), **NEW),
    "target: read-only": Fault(lambda r: r.target.chmod(0o444), **NOT_ASKED),
    "target: another user's": Fault(of_another_user, **NOT_ASKED),
    "target: goes on running": Fault(outlive_its_end, **NEW),
    "killed": Fault(strike, **ANY, status=-9),
    "display lost": Fault(lose_display, **ANY, status=1),
    "open: fails": Fault(lambda r: tools.replace("open", "exit 1"), **NEW),
    "marker: pipe": Fault(pipe_as_marker, **OUTDATED),
    "marker: endless line": Fault(lambda r: r.machine.marker.open("wb").truncate(1 << 30), **OUTDATED),
    "marker: binary": Fault(lambda r: r.machine.marker.write_bytes(b"\xff" + random.randbytes(5000)), **OUTDATED),
}
for name in ("expired", "self-signed", "wrong-host"):
    FAULTS[f"certificate: {name}"] = Fault(lambda r, name=name: setattr(r.service, "certificate", name), **NO_START)
for call in ("fsync", "chmod", "rename"):
    FAULTS[f"disk: {call} fails"] = Fault(failing_call(call, "EIO"))
for error in ("EOPNOTSUPP", "ENOTTY", "EINVAL"):
    FAULTS[f"disk: no cache flush, {error}"] = Fault(failing_call("fsync", error), **NEW)
for name, make in BROKEN_OFF.items():
    FAULTS[f"download: {name}"] = Fault(break_off("download", make))
    FAULTS[f"version: {name}"] = Fault(break_off("version", make), **NO_START)


def install_old(target):
    target.write_bytes(OLD)
    target.chmod(0o700)
    os.utime(target, ns=(10**18, 10**18))
    sandbox.own(target.parent)


def snapshot(machine):
    """Everything in the install folder but the target and what lies beside it."""
    paths = [path for path in machine.folder.rglob("*") if machine.companion.parent not in (path, *path.parents)]
    return {path: sandbox.state(path) for path in paths}


def staging(machine):
    return set(machine.folder.rglob("*.download.*"))


def outcome(r, before):
    if not r.target.exists():
        return "absent"
    if r.target.is_dir():
        return "folder"
    content = r.target.read_bytes()
    if content == OLD:
        assert sandbox.state(r.target) == before, "the old executable's mode or times changed"
        return "old"
    assert content == r.payload and r.target.stat().st_mode == 0o100755, "the installed executable is damaged"
    return "new"


def play(machine, fault):
    """One round; returns the outcome, or raises when a promise is broken."""
    tools.install()
    machine.companion.with_name("KR.download.killed").write_bytes(OLD[:300])  # what a killed launcher leaves
    install_old(machine.companion)
    r = Round(machine, fault)
    machine.offer("2.6", payload=r.payload)
    fault.bring_about(r)
    target = r.target.exists() and sandbox.state(r.target)
    before, leftovers = snapshot(machine), staging(machine)
    launcher = machine.launch(command=r.command, environment=machine.environment | {"PATH": str(tools.PATH)})
    if r.launched:
        threading.Thread(target=r.launched, args=[launcher], daemon=True).start()
    until(lambda: r.done() or launcher.poll() is not None, "the end of start-up or launcher", ROUND_SECONDS)
    assert launcher.poll() == fault.status, f"the launcher's status is {launcher.poll()}, not {fault.status}"
    sandbox.end_all("Korvane")
    launcher.wait()

    found, starts, downloads = outcome(r, target), len(tools.calls("open")), r.service.order().count("download")
    assert found in r.outcomes, f"the executable is {found}, not in {r.outcomes}"
    assert fault.starts in (None, starts), f"the start command ran {starts} times, not {fault.starts}"
    asked = fault.downloads in (None, downloads)
    assert asked, f"the executable was asked for {downloads} times, not {fault.downloads}"
    waits = r.service.waits
    if fault.limits:
        until(lambda: len(waits) == len(fault.limits), "the launcher has gone from a silent service")
        kept = all(limit - 3 <= wait <= limit + 10 for wait, limit in zip(waits, fault.limits))
        assert kept, f"the launcher waited for {waits} s, not {fault.limits}"
    left = staging(machine) - (leftovers if found != "new" else set())
    assert r.launched or not left, f"staging files are left: {left}"
    assert snapshot(machine) == before, "something else has changed"
    peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    assert peak < PEAK_KIB, f"a launcher took {peak} KiB of memory"
    return found


if __name__ == "__main__":
    random.seed(sys.argv[1])
    with sandbox.Machine() as machine:
        print(play(machine, FAULTS[sys.argv[2]]))
