"""The fault campaign: each fault is a test, and the same SEED plays the same round."""

import dataclasses
import functools
import gzip
import os
import random
import resource
import shutil
import subprocess
import threading
import typing

import machine as sandbox
import name_servers
import service
import strace
import tools
from machine import AGENT, LOCK, until

OLD = sandbox.companion_program("2.5")
LEFTOVER = OLD[:300]  # what a killed launcher leaves


@dataclasses.dataclass
class Fault:
    """What brings a fault about, and what is expected of its rounds."""

    bring_about: typing.Callable  # takes the Round
    outcomes: tuple = ("old",)  # of the installed executable: "old", "new", "absent", "folder"
    starts: int = 1  # how often the start command runs; None: it depends
    downloads: int = None  # how often the executable is asked for; None: it depends
    status: int = None  # of the launcher; None: it lives
    limits: tuple = ()  # the seconds after which it gives up on a silent service, for each request


class Round:
    """What faults are made with."""

    command = None  # what starts the launcher, if not its own path
    brought_about = True  # False while the fault is still to come

    def __init__(self, machine, fault):
        self.machine, self.service, self.outcomes = machine, machine.service, fault.outcomes
        self.payload = sandbox.companion_program(
            "2.6", random.choice([700, random.randrange(1000, 400_000)])
        )
        self.offset = random.randrange(len(self.payload))
        self.target, self.folder = machine.companion, machine.companion.parent
        self.done = AGENT.exists  # the last thing that start-up does

    def look(self):
        """Notes what must not change from now on."""
        self.old = self.target.exists() and sandbox.state(self.target)
        self.around = snapshot(self.machine)


def change(**changes):
    return lambda r: r.service.change(**changes)


def answer(what, fault):
    return change(faults={what: fault})


def shell(command):
    """A command in the executable's folder."""
    return lambda r: subprocess.run(["sh", "-ec", command], check=True, cwd=r.folder)


def break_off(what, make):
    """An answer that is cut; that of a version only after enough bytes to read as a newer one."""

    def bring_about(r):
        if what == "version":
            r.machine.offer("99.9.9.9", launcher="99.9.9.9")
        r.service.faults[what] = make(3 + r.offset % 6 if what == "version" else r.offset)

    return bring_about


def long_version(size):
    """A version that goes on in blanks to this size."""
    return lambda r: r.service.versions.update(KR_CAP=b'"2.6' + b" " * (size - 5) + b'"')


def meanwhile(command):
    """A command in the install folder, after the first part of a download has been written."""

    def bring_about(r):
        r.offset, r.brought_about = max(r.offset, 1), False

        def act():
            until(
                lambda: [path for path in staged(r.machine) if path.stat().st_size == r.offset],
                "a part is written",
            )
            subprocess.run(["sh", "-ec", command], check=True, cwd=r.machine.folder)
            r.look()
            r.brought_about = True

        r.service.faults["download"] = service.meanwhile(act, r.offset)

    return bring_about


def large_download(size, fault):
    def bring_about(r):
        r.payload = sandbox.companion_program("2.6", size)
        r.service.change(payload=r.payload, faults={"download": fault})

    return bring_about


def silent_name_servers(r):
    servers = name_servers.SilentNameServers()

    def complete():
        assert (
            servers.queries_in_search_domain() <= 8
        ), "the launcher waits until the resolver gives up, at 12"
        return AGENT.exists()

    r.done = complete


def full_disk(r):
    size = 4096 * random.randrange(1, len(r.payload) // 4096 + 3)
    subprocess.run(
        ["mount", "-t", "tmpfs", "-o", f"size={size + 4096},uid=1000", "none", r.folder], check=True
    )
    install_old(r.target)
    r.outcomes = ["new" if size >= len(r.payload) else "old"]


def failing_call(call, error):
    """A step of the replacement fails, after all bytes have been received."""
    return lambda r: setattr(r, "command", strace.failing(call, error, [r.machine.launcher_path]))


def no_streams(r):
    r.command = ["/bin/sh", "-c", 'exec "$0" <&- >&- 2>&-', r.machine.launcher_path]


def cut_gzip(content):
    return gzip.compress(content)[:-20]


def outlive_its_end(r):
    """A program that goes on running cannot be opened for writing, only replaced."""
    (tools.PATH / "pkill").unlink()
    shutil.copy("/usr/bin/sleep", r.target)
    r.machine.start([r.target, "1000"])


def killed(name):
    """Kills the launcher, or its X server, at any moment after its first request; often in the
    download.
    """

    def bring_about(r):
        delay = random.uniform(0, 5)
        if random.random() < 0.5:
            r.service.faults["download"] = service.stall(r.offset)

        def strike(handler, content):
            threading.Timer(delay, sandbox.end_all, [name]).start()
            handler.send(200, content)

        r.service.faults["version"] = strike
        r.done = lambda: False

    return bring_about


MARKER = "../../../Korvane.app/Contents/Resources/Korvane.version"
NEW = {"outcomes": ["new"], "downloads": 1}
OUTDATED = NEW | {"status": 255}  # a marker that is no version counts as 0.0
NOT_ASKED = {"downloads": 0}
NO_START = {"starts": 0}
ANY = {"outcomes": ["old", "new"], "starts": None}
SILENCE = {"faults": {"connect": service.no_handshake()}}

# Those that sleep longest come first, which is the order that CTest starts them in on a new
# machine.
FAULTS = {
    "download: slow": Fault(large_download(126_000, service.trickle(2048)), **NEW),
    "version: stalled": Fault(break_off("version", service.stall), **NO_START, limits=(30, 30)),
    "handshake: never ends": Fault(change(**SILENCE), **NO_START, limits=(15, 15)),
    "name: servers are silent": Fault(silent_name_servers, **NO_START),
    "download: handshake": Fault(
        answer("version", service.and_then(**SILENCE)), **NOT_ASKED, limits=(15, 15)
    ),
    "killed": Fault(killed("Korvane"), **ANY, status=-9),
    "display: lost": Fault(killed("Xvfb"), **ANY, status=1),
    "version: late": Fault(answer("version", service.pause(20)), **NEW),
    "handshake: late": Fault(answer("connect", service.late_handshake(10)), **NEW),
    "download: too slow": Fault(large_download(50_000, service.trickle(512))),
    "download: stalled": Fault(answer("download", service.stall(500)), downloads=1, limits=(30,)),
    "download: pauses": Fault(large_download(50_000, service.pause(20, 5000)), **NEW),
    "none": Fault(change(), **NEW),
    "version: long": Fault(long_version(64 << 10), **NEW),
    "version: too long": Fault(long_version((64 << 10) + 1), **NO_START),
    "version: endless": Fault(answer("version", service.endless()), **NO_START),
    "version: redirect": Fault(break_off("version", lambda _: service.redirect()), **NO_START),
    "version: error with a version": Fault(answer("version", service.status(500)), **NEW),
    "download: chunks": Fault(answer("download", service.chunks()), **NEW),
    "download: content coding": Fault(
        answer("download", service.chunks(gzip.compress, coding="gzip"))
    ),
    "download: transfer coding": Fault(
        answer("download", service.chunks(gzip.compress, "gzip, chunked"))
    ),
    "download: transfer coding, cut": Fault(
        answer("download", service.chunks(cut_gzip, "gzip, chunked"))
    ),
    "download: empty": Fault(answer("download", service.body(b""))),
    "download: redirect": Fault(answer("download", service.redirect()), downloads=1),
    "download: partial": Fault(answer("download", service.status(206))),
    "disk: full": Fault(full_disk),
    "disk: rename fails": Fault(
        meanwhile("cd KR.app/Contents/MacOS; mount --bind . ."), downloads=1
    ),
    "folder: read-only": Fault(shell("chmod 555 ."), **NOT_ASKED),
    "folder: in the target's place": Fault(
        shell("rm KR; install -d -o alice KR"), **NOT_ASKED, outcomes=["folder"]
    ),
    "folder: bundle's is read-only": Fault(
        shell("cd ../../..; rm .KR.download; chmod 555 ."), **NEW
    ),
    "folder: bundle is swapped": Fault(
        meanwhile("cp -a KR.app new; rm -r KR.app; mv new KR.app"), **NEW
    ),
    "staging file: a link": Fault(meanwhile("mv .KR.download ~alice; ln -s ~alice/.KR.download .")),
    "folder: missing": Fault(shell("rm -r ../MacOS"), **NOT_ASKED, outcomes=["absent"]),
    "target: missing": Fault(shell("rm KR"), **NEW),
    "target: read-only": Fault(shell("chmod 444 KR"), **NOT_ASKED),
    "target: becomes read-only": Fault(
        meanwhile("chmod 444 KR.app/Contents/MacOS/KR"), downloads=1
    ),
    "target: another user's": Fault(shell("chown root . KR; chmod 1777 ."), **NOT_ASKED),
    "target: goes on running": Fault(outlive_its_end, **NEW),
    "streams: closed": Fault(no_streams, **NEW),
    "marker: pipe": Fault(shell(f"rm {MARKER}; mkfifo {MARKER}"), **OUTDATED),
    "marker: endless line": Fault(
        shell(f"truncate --size 0 {MARKER}; truncate --size 1G {MARKER}"), **OUTDATED
    ),
}
for name in ("expired", "self-signed", "wrong-host"):
    FAULTS[f"certificate: {name}"] = Fault(change(certificate=name), **NO_START)
    FAULTS[f"download: {name}"] = Fault(
        answer("version", service.and_then(certificate=name)), **NOT_ASKED
    )
for name, lengths in {
    "two lengths": ["{whole}", "{half}"],
    "list of lengths": ["{half}, {whole}"],
    "no number": ["{half}xyz"],
    "beyond 63 bits": ["9" * 20],
}.items():
    FAULTS[f"download: {name}"] = Fault(answer("download", service.lengths(*lengths)), downloads=1)
for call in ("fsync", "fchmod"):
    FAULTS[f"disk: {call} fails"] = Fault(failing_call(call, "EIO"))
for error in ("EOPNOTSUPP", "ENOTTY", "EINVAL"):
    FAULTS[f"disk: no cache flush, {error}"] = Fault(failing_call("fsync", error), **NEW)
for name, make in {
    "reset": service.reset,
    "cut": service.cut,
    "chunked": service.chunked_cut,
}.items():
    FAULTS[f"download: {name}"] = Fault(break_off("download", make))
    FAULTS[f"version: {name}"] = Fault(break_off("version", make), **NO_START)


def install_old(target):
    target.write_bytes(OLD)
    target.chmod(0o700)
    os.utime(target, ns=(10**18, 10**18))
    sandbox.own(target.parent)


def staged(machine):
    """The staging files in both places."""
    return {*machine.companion.parent.glob("KR.download"), *machine.folder.glob(".KR.download")}


def is_planted(path):
    """Whether this is what the round has put in a staging file's place."""
    return path.is_symlink() or path.read_bytes() == LEFTOVER


def snapshot(machine):
    """Everything in the install folder but the target, what lies beside it, and staging files."""
    paths = [
        path
        for path in machine.folder.rglob("*")
        if machine.companion.parent not in (path, *path.parents)
    ]
    staging_files = {path for path in staged(machine) if not path.is_symlink()}
    return {path: sandbox.state(path) for path in paths if path not in staging_files}


def outcome(r):
    if not r.target.exists():
        return "absent"
    if r.target.is_dir():
        return "folder"
    content = r.target.read_bytes()
    if content == OLD:
        assert sandbox.state(r.target) == r.old, "the old executable's mode or times changed"
        return "old"
    assert (
        content == r.payload and r.target.stat().st_mode == 0o100755
    ), "the installed executable is damaged"
    return "new"


def play(name, fault):
    """One round, and the promises that hold whatever happens."""
    random.seed(os.environ["SEED"] + name)
    with sandbox.Machine() as machine:
        tools.install()
        for folder, name in (machine.companion.parent, "KR.download"), (
            machine.folder,
            ".KR.download",
        ):
            (folder / name).write_bytes(LEFTOVER)
        install_old(machine.companion)
        r = Round(machine, fault)
        machine.offer("2.6", payload=r.payload)
        fault.bring_about(r)
        r.look()
        launcher = machine.launch(
            command=r.command, environment=machine.environment | {"PATH": str(tools.PATH)}
        )
        until(lambda: r.done() or launcher.poll() is not None, "the end of start-up or launcher")
        status = launcher.poll()
        sandbox.end_all("Korvane")
        launcher.wait()
        found, starts, downloads = (
            outcome(r),
            len(tools.calls("open")),
            r.service.order().count("download"),
        )
        assert r.brought_about, "the fault has not come about"
        assert status == fault.status, f"the launcher's status is {status}"
        assert found in r.outcomes, f"the executable is {found}"
        assert fault.starts in (None, starts), f"the start command ran {starts} times"
        assert fault.downloads in (
            None,
            downloads,
        ), f"the executable was asked for {downloads} times"
        if fault.limits:
            until(
                lambda: len(r.service.waits) == len(fault.limits),
                "the launcher has gone from a silent service",
            )
            for wait, limit in zip(r.service.waits, fault.limits):
                assert limit - 3 <= wait <= limit + 10, f"it waited {wait} s, not {limit} s"
        left = {path for path in staged(machine) if found == "new" or not is_planted(path)}
        assert (
            not left or status == -9 and not left & set(r.folder.iterdir())
        ), f"staging files are left: {left}"
        assert snapshot(machine) == r.around, "something else has changed"
        assert LOCK.read_bytes() == b"", "something was written to the lock file"
        peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        assert (
            peak < 160 * 1024
        ), f"a launcher took {peak} KiB of memory"  # reading an endless answer or marker takes more


TESTS = {name: functools.partial(play, name, fault) for name, fault in FAULTS.items()}
