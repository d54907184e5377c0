"""A round of the fault campaign, on a machine of its own: one fault, and the promises that hold whatever happens.

    campaign.py SEED FAULT

Prints what has become of the installed executable; ends with status 1 and the reason when a promise is broken. The same
seed plays the same round. script/campaign plays them all.
"""
import dataclasses
import os
import pathlib
import random
import resource
import shutil
import subprocess
import sys
import threading
import time

import machine as sandbox
import name_servers
import service
import tools
from machine import AGENT, LOCK, until

OLD = sandbox.companion_program("2.5")
ROUND_SECONDS = 110  # the mandated pauses and the longest waits, one after the other, with room to spare
PEAK_KIB = 160 * 1024  # of memory: more than a launcher takes, less than what it is offered


@dataclasses.dataclass
class Fault:
    """What brings a fault about, and what is expected of its rounds."""

    # Changes of the service; or a shell command in the executable's folder; or a function of the Round.
    cause: object
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

    def bring_about(self, cause):
        if callable(cause):
            cause(self)
        elif isinstance(cause, dict):
            self.service.change(**cause)
        else:
            environment = {"MARKER": str(self.machine.marker)}
            subprocess.run(["sh", "-ec", cause], check=True, cwd=self.folder, env=os.environ | environment)


def version(fault):
    return {"faults": {"version": fault}}


def download(fault):
    return {"faults": {"download": fault}}


def break_off(what, make):
    """An answer that does not arrive whole; a version, though, far enough to read as a newer one."""

    def cause(r):
        offset = r.offset
        if what == "version":
            r.machine.offer("99.9.9.9", launcher="99.9.9.9")
            offset = 3 + r.offset % 6
        r.service.faults[what] = make(offset)

    return cause


def long_version(size):
    """A version that goes on in blanks to this size."""
    return lambda r: r.service.versions.update(KR_CAP=b'"2.6' + b" " * (size - 5) + b'"')


def large_download(size, fault):
    def cause(r):
        r.payload = sandbox.companion_program("2.6", size)
        r.service.change(payload=r.payload, **download(fault))

    return cause


def silent_name_servers(r):
    servers = name_servers.SilentNameServers()

    def complete():
        assert servers.queries_in_search_domain() <= 8, "the launcher waits until the resolver gives up, at 12"
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
        strace = f"strace -qq -o /dev/null -e inject=close:error=EIO -p {launcher}".split()
        r.machine.start(strace, sandbox.AS_ROOT)
        until(lambda: "TracerPid:\t0\n" not in pathlib.Path(f"/proc/{launcher}/status").read_text(), "it is traced")
        handler.send(200, content)

    r.service.faults["download"] = attach


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


NEW = {"outcomes": ["new"], "downloads": 1}
OUTDATED = NEW | {"status": 255}  # a marker that is no version counts as 0.0
NOT_ASKED = {"downloads": 0}
NO_START = {"starts": 0}
LONG = {"long": True}
ANY = {"outcomes": ["old", "new"], "starts": None}
SILENCE = {"faults": {"connect": service.no_handshake()}}
# A service that is otherwise from the version's answer on.
WRONG_HOST = version(service.and_then(certificate="wrong-host"))
SELF_SIGNED = version(service.and_then(certificate="self-signed"))
THEN_SILENCE = version(service.and_then(**SILENCE))

FAULTS = {
    "none": Fault({}, **NEW),
    "version: late": Fault(version(service.pause(20)), **NEW, **LONG),
    "version: long": Fault(long_version(60 << 10), **NEW),
    "version: too long": Fault(long_version(1 << 20), **NO_START),
    "version: endless": Fault(version(service.endless()), **NO_START),
    "version: redirect": Fault(break_off("version", lambda _: service.redirect()), **NO_START),
    "version: stalled": Fault(break_off("version", service.stall), **NO_START, limits=(30, 30), **LONG),
    "version: error with a version": Fault(version(service.status(500)), **NEW),
    "download: empty": Fault(download(service.body(b""))),
    "download: pauses": Fault(large_download(50_000, service.pause(20, 5000)), **NEW),
    "download: slow": Fault(large_download(126_000, service.trickle(2048)), **NEW, **LONG),
    "download: too slow": Fault(large_download(50_000, service.trickle(512)), **LONG),
    "download: redirect": Fault(download(service.redirect()), downloads=1),
    "download: partial": Fault(download(service.status(206))),
    "download: wrong host": Fault(WRONG_HOST, **NOT_ASKED),
    "download: self-signed": Fault(SELF_SIGNED, **NOT_ASKED),
    "download: no handshake": Fault(THEN_SILENCE, **NOT_ASKED, limits=(15, 15), **LONG),
    "download: stalled": Fault(download(service.stall(500)), downloads=1, limits=(30,), **LONG),
    "handshake: late": Fault({"faults": {"connect": service.late_handshake(10)}}, **NEW, **LONG),
    "handshake: never ends": Fault(SILENCE, **NO_START, limits=(15, 15), **LONG),
    "name: does not resolve": Fault("echo >/etc/hosts", **NO_START),
    "name: servers are silent": Fault(silent_name_servers, **NO_START, **LONG),
    "disk: full": Fault(full_disk),
    "disk: close fails": Fault(failing_close),
    "folder: read-only": Fault("chmod 555 .", **NOT_ASKED),
    "folder: in the target's place": Fault("rm KR; mkdir KR", **NOT_ASKED, outcomes=["folder"]),
    "folder: missing": Fault("rm -r ../MacOS", **NOT_ASKED, outcomes=["absent"]),
    "target: missing": Fault("rm KR", **NEW),
    "target: read-only": Fault("chmod 444 KR", **NOT_ASKED),
    "target: another user's": Fault("chown root . KR; chmod 1777 .", **NOT_ASKED),
    "target: goes on running": Fault(outlive_its_end, **NEW),
    "killed": Fault(strike, **ANY, status=-9),
    "display lost": Fault(lose_display, **ANY, status=1),
    "open: fails": Fault(lambda r: tools.replace("open", "exit 1"), **NEW),
    "marker: pipe": Fault('rm "$MARKER"; mkfifo "$MARKER"', **OUTDATED),
    "marker: endless line": Fault('truncate --size 0 "$MARKER"; truncate --size 1G "$MARKER"', **OUTDATED),
    "marker: binary": Fault('head -c 5000 /dev/urandom | tr "0-9\\n" x >"$MARKER"', **OUTDATED),
}
for name in ("expired", "self-signed", "wrong-host"):
    FAULTS[f"certificate: {name}"] = Fault({"certificate": name}, **NO_START)
for call in ("fsync", "chmod", "rename"):
    FAULTS[f"disk: {call} fails"] = Fault(failing_call(call, "EIO"))
for error in ("EOPNOTSUPP", "ENOTTY", "EINVAL"):
    FAULTS[f"disk: no cache flush, {error}"] = Fault(failing_call("fsync", error), **NEW)
for name, make in {"reset": service.reset, "cut": service.cut, "chunked": service.chunked_cut}.items():
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
    r.bring_about(fault.cause)
    target = r.target.exists() and sandbox.state(r.target)
    before, leftovers = snapshot(machine), staging(machine)
    launcher = machine.launch(command=r.command, environment=machine.environment | {"PATH": str(tools.PATH)})
    if r.launched:
        threading.Thread(target=r.launched, args=[launcher], daemon=True).start()
    until(lambda: r.done() or launcher.poll() is not None, "the end of start-up or launcher", ROUND_SECONDS)
    status = launcher.poll()
    sandbox.end_all("Korvane")
    launcher.wait()

    found, starts, downloads = outcome(r, target), len(tools.calls("open")), r.service.order().count("download")
    assert status == fault.status, f"the launcher's status is {status}"
    assert found in r.outcomes, f"the executable is {found}"
    assert fault.starts in (None, starts), f"the start command ran {starts} times"
    assert fault.downloads in (None, downloads), f"the executable was asked for {downloads} times"
    waits = r.service.waits
    if fault.limits:
        until(lambda: len(waits) == len(fault.limits), "the launcher has gone from a silent service")
        assert all(limit - 3 <= wait <= limit + 10 for wait, limit in zip(waits, fault.limits)), f"it waited {waits} s"
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
