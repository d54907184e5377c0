"""The fault campaign: whatever goes wrong, the installed executable is the old one or the new one.

Sizes, offsets and moments are drawn from SEED.
"""

import collections
import gzip
import os
import pathlib
import random
import re
import resource
import shutil
import socket
import subprocess

import faults
import machine as sandbox
import pytest
import strace
import tools
from machine import AGENT, state, until

OLD = sandbox.companion_program("2.5")
LEFTOVER = OLD[:300]  # what a killed launcher left, in both places
LOCK = pathlib.Path("/tmp/Korvane.lock")
MARKER = "../../../Korvane.app/Contents/Resources/Korvane.version"

# What is expected: which executable is installed, how often the start command has run and the
# executable was asked for, what lies under the staging file's two names, and how the launcher has
# ended, if it has.
Expected = collections.namedtuple("Expected", "executable starts downloads left status")
NO_UPDATE = Expected("old", 0, 0, "leftovers", None)
NOT_STAGED = Expected("old", 1, 0, "leftovers", None)
NOT_ASKED = Expected("old", 1, 0, "nothing", None)
FAILED = Expected("old", 1, 1, "nothing", None)
NEW = Expected("new", 1, 1, "nothing", None)
FOLDER_STAYS = NOT_STAGED._replace(executable="folder")
NOTHING_APPEARS = NOT_ASKED._replace(executable="absent")
LINK_STAYS = FAILED._replace(left="whole")
OUTDATED = NEW._replace(status=255)
DISPLAY_LOST = NEW._replace(status=1)
KILLED_EARLY = Expected("old", 0, 0, "leftovers", -9)
KILLED = Expected("old", 0, 1, "part", -9)
KILLED_LATE = KILLED._replace(left="whole")
KILLED_AFTERWARDS = NEW._replace(starts=0, status=-9)


class Round:
    def __init__(self, machine):
        self.machine, self.service = machine, machine.service
        self.target, self.folder = machine.companion, machine.companion.parent
        self.staging_paths = self.folder / "KR.download", machine.folder / ".KR.download"
        self.payload = sandbox.companion_program("2.6", random.randrange(20_000, 400_000))
        self.offset = random.randrange(1, len(self.payload))
        self.environment = machine.environment | {"PATH": str(tools.PATH)}
        self.command = [machine.launcher_path]
        self.came_about = lambda: True

    def staged(self):
        """What lies under the staging file's names."""
        return [path.read_bytes() for path in self.staging_paths if path.exists()]

    def executable(self):
        """What is installed: "old", untouched, "new", "absent", "folder" or something damaged."""
        if self.target.is_dir() or not self.target.exists():
            return "folder" if self.target.exists() else "absent"
        if state(self.target) == self.old:
            return "old"
        installed = self.target.read_bytes(), self.target.stat().st_mode
        return "new" if installed == (self.payload, 0o100755) else "damaged"

    def look(self):
        """Notes what must not change from now on."""
        self.old = self.target.exists() and state(self.target)
        self.around = self.surroundings()

    def surroundings(self):
        """Everything in the install folder but the executable's folder and the staging file."""
        inside = self.machine.folder.rglob("*")
        paths = [path for path in inside if self.folder not in (path, *path.parents)]
        return {path: state(path) for path in paths if path.name != ".KR.download"}


def install_old(target):
    target.write_bytes(OLD)
    target.chmod(0o700)
    os.utime(target, ns=(10**18, 10**18))
    sandbox.own(target.parent)


def answer(kind, fault, later=False, size=None):
    """A fault of the service, at once or after a good version, of a download of some size."""

    def bring_about(r):
        if size:
            r.payload = r.service.payload = sandbox.companion_program("2.6", size)
        r.service.faults = {"version": faults.once(**{kind: fault})} if later else {kind: fault}
        r.came_about = lambda: kind in r.service.played

    return bring_about


def shell(command):
    """A command in the executable's folder."""
    return lambda r: subprocess.run(["sh", "-ec", command], check=True, cwd=r.folder)


def in_download(act):
    """Something that happens once the first part of a download has been staged."""

    def bring_about(r):
        def when_staged(_):
            until(lambda: r.payload[: r.offset] in r.staged(), "a part is staged")
            assert {path.stat().st_mode for path in r.staging_paths if path.exists()} == {0o100600}
            act(r)

        answer("download", faults.meanwhile(when_staged, r.offset))(r)

    return bring_about


def meanwhile(command):
    """A command in the install folder, in the middle of a download."""

    def act(r):
        subprocess.run(["sh", "-ec", command], check=True, cwd=r.machine.folder)
        r.look()

    return in_download(act)


def linked_bundle(r):
    """The staging file lies outside the real one."""
    shell("cd ../../..; mv KR.app ~alice; ln -s ~alice/KR.app .")(r)
    r.staging_paths = r.staging_paths[0], sandbox.HOME / ".KR.download"
    in_download(lambda _: None)(r)


def killed_before_download(r):
    tools.replace("pkill", "/usr/bin/pkill -KILL -x Korvane")
    r.came_about = lambda: tools.calls("pkill")


def system_call(call, how):
    """A system call of the replacement fails, or kills the launcher."""

    def bring_about(r):
        r.command = strace.injecting(call, f"{call}:{how}", r.command)
        r.came_about = lambda: "signal" in how or "INJECTED" in strace.LOG.read_text()

    return bring_about


def no_cache_flush(r):
    """What F_FULLFSYNC does cannot be had; fsync can."""
    system_call("fsync", "error=ENOTTY:when=1")(r)
    again = r"INJECTED.*\n.*fsync.*KR.download>\) += 0"
    r.came_about = lambda: re.search(again, strace.LOG.read_text())


def certificate(name, reason, later=False):
    def bring_about(r):
        answer("connect", faults.certificate(name), later)(r)
        r.came_about = lambda: reason in r.launcher.output.read_text()

    return bring_about


def long_version(size):
    """A version that goes on in blanks to this size."""
    return lambda r: r.service.versions.update(KR_CAP=b'"2.6' + b" " * (size - 5) + b'"')


def silent_name_server(r):
    """The system's resolver would ask it again after 30 s."""
    server = socket.socket(type=socket.SOCK_DGRAM)
    server.bind(("127.0.0.2", 53))
    server.settimeout(1)
    pathlib.Path("/etc/resolv.conf").write_text("nameserver 127.0.0.2\noptions timeout:30\n")
    pathlib.Path("/etc/nsswitch.conf").write_text("hosts: dns\n")
    # Each request looks up two kinds of address, and none is looked up twice.
    r.came_about = lambda: len({server.recv(512)[:2] for _ in range(4)}) == 4


def full_disk(r):
    r.staging_paths[1].unlink()  # out of a bundle on another disk nothing can be moved
    pages = random.randrange(1, len(r.payload) // 4096)
    size = f"size={4096 * (pages + 1)},uid={sandbox.UID}"  # the old executable takes one
    subprocess.run(["mount", "-t", "tmpfs", "-o", size, "none", r.folder], check=True)
    install_old(r.target)
    write_failed = "Failure writing|ERROR on write"
    r.came_about = lambda: re.search(write_failed, r.launcher.output.read_text())


def running(r):
    """A program that goes on running cannot be opened for writing, only replaced."""
    (tools.PATH / "pkill").unlink()
    shutil.copy("/usr/bin/sleep", r.target)
    process = r.machine.start([r.target, "1000"])
    r.came_about = lambda: process.poll() is None


def no_streams(r):
    """Each is opened on /dev/null, before anything else takes its place."""
    r.command = ["/bin/sh", "-c", 'exec "$0" <&- >&- 2>&-', r.machine.launcher_path]

    def came_about():
        folder = pathlib.Path(f"/proc/{r.launcher.pid}/fd")
        return {str((folder / name).readlink()) for name in "012"} == {"/dev/null"}

    r.came_about = came_about


def cut_gzip(content):
    return gzip.compress(content)[:-20]


# Those that sleep longest come first, which is the order that CTest starts them in on a new
# machine. Limits are played from both sides, within a fifth: 15 s for a handshake, 30 s for a
# version and for what may come slower than 1024 bytes a second, 64 KiB for a version.
LATE, TOO_LATE = faults.late_handshake(12.5), faults.late_handshake(17.5)
CUT = faults.headers("Content-Length: {whole}", part=0.6)
ROUNDS = {
    "download: slow": (answer("download", faults.trickle(1200), size=74_000), NEW),
    "download: too slow": (answer("download", faults.trickle(850), size=54_000), FAILED),
    "handshake: late": (answer("connect", LATE), NEW),
    "handshake: too late": (answer("connect", TOO_LATE), NO_UPDATE),
    "download: handshake too late": (answer("connect", TOO_LATE, later=True), NOT_ASKED),
    "name: server is silent": (silent_name_server, NO_UPDATE),
    "version: late": (answer("version", faults.once(faults.pause(26))), NEW),
    "version: too late": (answer("version", faults.once(faults.pause(34, 6))), NO_UPDATE),
    "download: pauses": (answer("download", faults.pause(26, 500)), NEW),
    "download: pauses too long": (answer("download", faults.pause(34, 500, length=False)), FAILED),
    "version: long": (long_version(64 << 10), NEW),
    "version: too long": (long_version((64 << 10) + 1), NO_UPDATE),
    "version: endless": (answer("version", faults.endless()), NO_UPDATE),
    "version: redirect": (answer("version", faults.redirect()), NO_UPDATE),
    "version: cut": (answer("version", CUT), NO_UPDATE),
    "version: chunks, cut": (answer("version", faults.chunks(last=b"")), NO_UPDATE),
    "version: reset": (answer("version", faults.reset()), NO_UPDATE),
    "version: error with a version": (answer("version", faults.status(500)), NEW),
    "download: length": (answer("download", faults.headers("Content-Length: {whole}")), NEW),
    "download: no length": (answer("download", faults.headers()), NEW),
    "download: chunks": (answer("download", faults.chunks(Content_Encoding="identity")), NEW),
    "folder: read-only": (shell("chmod 555 ."), NOT_STAGED),
    "folder: in the target's place": (shell("rm KR; install -d -o alice KR"), FOLDER_STAYS),
    "folder: missing": (shell("rm -r ../MacOS ../../../.KR.download"), NOTHING_APPEARS),
    "folder: bundle's is read-only": (shell("cd ../../..; rm .KR.download; chmod 555 ."), NEW),
    "folder: bundle is swapped": (meanwhile("cp -a KR.app new; rm -r KR.app; mv new KR.app"), NEW),
    "folder: bundle is a link": (linked_bundle, NEW),
    "target: missing": (shell("rm KR"), NEW),
    "target: read-only": (shell("chmod 444 KR"), NOT_STAGED),
    "target: becomes read-only": (meanwhile("chmod 444 KR.app/Contents/MacOS/KR"), FAILED),
    "target: another user's": (shell("chown root . KR; chmod 1777 ."), NOT_STAGED),
    "target: goes on running": (running, NEW),
    "staging file: a link": (meanwhile("mv .KR.download ~alice; ln -s ~alice/.KR* ."), LINK_STAYS),
    "disk: full": (full_disk, FAILED),
    "disk: rename fails": (meanwhile("cd KR.app/Contents/MacOS; mount --bind . ."), FAILED),
    "disk: flush fails": (system_call("fsync", "error=EIO:when=1"), FAILED),
    "disk: no cache flush": (no_cache_flush, NEW),
    "disk: mode fails": (system_call("fchmod", "error=EIO"), FAILED),
    "killed: before the download": (killed_before_download, KILLED_EARLY),
    "killed: in the download": (in_download(lambda r: sandbox.end_all("Korvane")), KILLED),
    "killed: before the flush": (system_call("fsync", "signal=KILL:when=1"), KILLED_LATE),
    "killed: before the rename": (system_call("/^rename", "signal=KILL:when=2"), KILLED_LATE),
    "killed: after the rename": (system_call("fsync", "signal=KILL:when=2"), KILLED_AFTERWARDS),
    "display: lost": (in_download(lambda r: sandbox.end_all("Xvfb", uid=0)), DISPLAY_LOST),
    "streams: closed": (no_streams, NEW),
    "marker: pipe": (shell(f"rm {MARKER}; mkfifo {MARKER}"), OUTDATED),
    "marker: endless line": (shell(f"rm {MARKER}; truncate --size 1G {MARKER}"), OUTDATED),
}
for name, reason in {
    "expired": "certificate has expired",
    "self-signed": "self-signed certificate",
    "wrong-host": "no alternative certificate subject name matches",
}.items():
    ROUNDS[f"version: {name}"] = certificate(name, reason), NO_UPDATE
    ROUNDS[f"download: {name}"] = certificate(name, reason, later=True), NOT_ASKED
for name, fault in {
    "cut": CUT,
    "chunks, cut": faults.chunks(last=b""),
    "reset": faults.reset(),
    "empty": faults.headers("Content-Length: 0", part=0),
    "redirect": faults.once(faults.redirect()),
    "partial": faults.status(206),
    "content coding": faults.chunks(gzip.compress, Content_Encoding="gzip"),
    "transfer coding": faults.chunks(gzip.compress, Transfer_Encoding="gzip, chunked"),
    "transfer coding, cut": faults.chunks(cut_gzip, Transfer_Encoding="gzip, chunked"),
    "two lengths": faults.headers("Content-Length: {whole}", "Content-Length: {part}", part=0.5),
    "list of lengths": faults.headers("Content-Length: {part}, {whole}", part=0.5),
    "repeated length": faults.headers("Content-Length: {whole}", "Content-Length: {whole}"),
    "length and more": faults.headers("Content-Length: {part}xyz", part=0.5),
    "length too long": faults.headers("Content-Length: 99999999999999999999", part=0.5),
    "length and chunks": faults.chunks(Content_Length=7),
}.items():
    ROUNDS[f"download: {name}"] = answer("download", fault), FAILED
IN_MEMORY = re.compile("download: (cut|reset|chunks)|killed: in the download|disk: full|.* a link")


@pytest.mark.parametrize(
    "name",
    [
        pytest.param(name, marks=[pytest.mark.memory] * bool(IN_MEMORY.match(name)))
        for name in ROUNDS
    ],
)
def test_round(machine, name):
    bring_about, expected = ROUNDS[name]
    r = Round(machine)
    install_old(r.target)
    LOCK.write_text("untouched")
    sandbox.own(LOCK)
    for path in r.staging_paths:
        path.write_bytes(LEFTOVER)
    machine.offer("2.6.0.0", payload=r.payload)
    bring_about(r)
    r.look()
    r.launcher = machine.launch(r.command, env=r.environment)

    if expected.status is None:
        until(AGENT.exists, "start-up is complete")
    else:
        r.launcher.wait(100)
    until(r.came_about, "the fault comes about")
    status = r.launcher.poll()
    sandbox.end_all("Korvane")
    left = {
        "nothing": [],
        "leftovers": [LEFTOVER] * 2,
        "part": [r.payload[: r.offset]],
        "whole": [r.payload],
    }[expected.left]
    starts, downloads = len(tools.calls("open")), r.service.order().count("download")
    assert Expected(r.executable(), starts, downloads, r.staged(), status) == expected._replace(
        left=left
    )
    assert r.surroundings() == r.around, "something else has changed"
    assert LOCK.read_text() == "untouched", "something has changed the lock file"
    # Reading an endless answer or marker takes more.
    assert resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss < 160 * 1024

    if status == -9:  # the next launcher replaces what this one has left
        r.service.faults.clear()
        tools.install()
        machine.launch(env=r.environment)
        until(AGENT.exists, "the next start-up is complete")
        assert (r.executable(), r.staged()) == ("new", [])
