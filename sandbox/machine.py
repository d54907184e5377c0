"""The machine inside the sandbox: display, service, an installed launcher, a companion.

Used by the demonstration, the tests and the benchmark, as root inside sandbox/enter. The launcher
and the companion run as the ordinary user "alice".
"""

import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import time

import service

USER = "alice"
UID = 1000
AS_ALICE = {"user": UID, "group": UID, "extra_groups": []}
HOME = pathlib.Path("/home/alice")
AGENT = HOME / "Library/LaunchAgents/com.mervix.korvane.plist"
COMPANION = (pathlib.Path(__file__).parent / "KR.app/Contents/MacOS/KR").read_text()


def until(condition, what, timeout=100):
    """Waits until condition() is true and returns its value."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise TimeoutError(f"{what}: not within {timeout} s")
        time.sleep(0.02)


def companion_program(version, size=0):
    """The stand-in companion's executable: its version in it, padded to size bytes."""
    text = COMPANION.replace('VERSION = "0.0"', f'VERSION = "{version}"')
    return (text + "#" * (size - len(text))).encode()


class Processes(contextlib.ExitStack):
    """Processes that end with this object."""

    def start(self, command, identity=AS_ALICE, **options):
        """Starts a process, as alice unless told otherwise."""
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **identity, **options)
        self.callback(end, process)
        return process

    def start_display(self, *options):
        """Starts an X server and returns its name."""
        reader, writer = os.pipe()
        command = ["Xvfb", "-displayfd", str(writer), "-ac", "-noreset", *options]
        command += ["-screen", "0", "1024x768x24"]
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.start(command, identity={}, pass_fds=[writer], **quiet)
        os.close(writer)
        with open(reader) as pipe:
            return ":" + pipe.readline().strip()


class Machine(Processes):
    """A display, the vendor's service, and an install folder with launcher and companion.

    One for each sandbox.
    """

    def __init__(self, folder="/home/alice/Applications"):
        super().__init__()
        self.folder = pathlib.Path(folder)
        self.launched = 0

    def __enter__(self):
        AGENT.parent.mkdir(parents=True)
        shutil.copytree("/build/stage", self.folder, symlinks=True)
        self.companion = self.folder / "KR.app/Contents/MacOS/KR"
        self.companion.write_bytes(companion_program("2.5"))
        self.login_program = self.folder / "Korvane"
        self.launcher_path = self.folder / "Korvane.app/Contents/MacOS/Korvane"
        self.marker = self.launcher_path.with_name("Korvane.version")
        self.marker.write_text("2.5\n")
        self.flag = self.folder / f"{USER}_ManualExit.txt"
        own(HOME)
        own(self.folder)
        self.service = self.enter_context(service.Service())
        display = self.start_display()
        self.environment = os.environ | {"HOME": str(HOME), "USER": USER, "DISPLAY": display}
        return self

    def offer(self, companion, launcher="2.5", payload=None):
        """Sets what the service reports for companion and launcher, and the download."""
        self.service.versions["KR_CAP"] = f'"{companion}"'.encode()
        self.service.versions["Korvane_CAP"] = f'"{launcher}"'.encode()
        self.service.payload = companion_program(companion) if payload is None else payload

    def launch(self, command=None, **options):
        """Starts the launcher, by its path or by a command. Its output goes to the file at
        .output."""
        self.launched += 1
        output = pathlib.Path(f"/tmp/trace{self.launched}")
        with open(output, "wb") as stream:
            options = {"env": self.environment, "stdout": stream, "stderr": stream} | options
            process = self.start(command or [self.launcher_path], **options)
        process.output = output
        return process

    def open(self, bundle):
        """Starts another process of an installed bundle; unlike with launch(), it is not a child of
        this one."""
        command = ["open", "-n", str(self.folder / bundle)]
        subprocess.run(command, check=True, env=self.environment, **AS_ALICE)

    def start_companion(self):
        """Starts the installed companion and returns its process id."""
        self.open("KR.app")
        return until(companions, "the companion runs")[0]


def state(path):
    """What does not change while nobody touches a file or folder."""
    status = path.lstat()
    return status.st_ino, status.st_mode, status.st_size, status.st_mtime_ns


def own(path):
    """Gives a folder and all in it to alice."""
    subprocess.run(["chown", "-hR", f"{UID}:{UID}", str(path)], check=True)


def end(process):
    if process.poll() is None:
        process.kill()
    process.wait()


def processes(name, uid=UID):
    """The ids of a user's processes of exactly this name that have not ended."""
    found = []
    for file in pathlib.Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):
            pid, shown, condition = re.match(r"(\d+) \((.*)\) (\S)", file.read_text()).groups()
            if shown == name and condition != "Z" and file.stat().st_uid == uid:
                found.append(int(pid))
    return sorted(found)


def end_all(name, uid=UID):
    """Kills a user's processes of exactly this name, and waits until none is left."""
    for pid in processes(name, uid):
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, 9)
    until(lambda: not processes(name, uid), f"no process {name} is left")


def companions():
    return processes("KR")


def catches(pid, number):
    """Whether the process has a handler for this signal."""
    caught = re.search(r"^SigCgt:\t(\w+)", pathlib.Path(f"/proc/{pid}/status").read_text(), re.M)
    return int(caught[1], 16) & (1 << (number - 1))
