"""The machine inside the sandbox: certificates, display, an installed launcher and its processes.

Used by the demonstration and by the tests alike, as root inside sandbox/enter. The launcher and the companion run as
the ordinary user "alice".
"""
import contextlib
import os
import pathlib
import re
import shutil
import signal
import ssl
import subprocess
import time

import service

USER = "alice"
UID = 1000
AS_ALICE = {"user": UID, "group": UID, "extra_groups": []}
AS_ROOT = {}
HOME = pathlib.Path("/home/alice")
AGENT = HOME / "Library/LaunchAgents/com.mervix.korvane.plist"
PATH_TRACE = pathlib.Path("/tmp/korvane_debug.txt")
LOCK = pathlib.Path("/tmp/Korvane.lock")
HOST = "service.korvane.example"
TOOLS = pathlib.Path("/tmp/tools")
CALLS = pathlib.Path("/tmp/calls")
STEP_LOG = pathlib.Path("/tmp/steps")
QUICKLY = f"/usr/bin/strace -D -f --seccomp-bpf -qq -s 999 -o {STEP_LOG} -e inject=clock_nanosleep:retval=0".split()
QUICKLY += ["-e", "trace=clock_nanosleep,openat,connect,execve,fsync,?rename,?renameat,?renameat2"]
# The lines that count there, and what steps() calls them.
STEP_PATTERNS = {
    r"clock_nanosleep\(.*{tv_sec=(\d+), tv_nsec=0}": "sleep",
    r"connect\(.*htons\(443\)": "ask",
    r"(fsync|rename)\w*\(": "disk",
    r"openat\(.*/(Korvane.lock|korvane_debug.txt|Korvane.version|\w+_ManualExit.txt|KR.download).*O_": "open",
    r'execve\(.*\["sh", "-c", (?:"--", )?"(.*)"\]': "run",
}
TLS = pathlib.Path("/run/tls")
TRUST_STORE = "/etc/ssl/certs/ca-certificates.crt"
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


def make_certificates():
    """Makes a throwaway authority, trusts it, and returns TLS contexts for a good and several bad certificates."""
    TLS.mkdir()

    def certificate(name, host, *signer, command=("openssl",)):
        request = "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2".split()
        subject = ["-subj", f"/CN={host}", "-addext", f"subjectAltName=DNS:{host}"]
        files = ["-keyout", f"{name}.key", "-out", f"{name}.crt"]
        subprocess.run([*command, *request, *subject, *files, *signer], check=True, capture_output=True, cwd=TLS)

    def context(name):
        made = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        made.load_cert_chain(TLS / f"{name}.crt", TLS / f"{name}.key")
        return made

    certificate("authority", "Throwaway authority")
    shutil.copy(TLS / "authority.crt", TRUST_STORE)
    signed = ("-CA", "authority.crt", "-CAkey", "authority.key", "-addext", "basicConstraints=critical,CA:FALSE")
    certificate("good", HOST, *signed)
    certificate("wrong-host", "other.example", *signed)
    certificate("self-signed", HOST)
    certificate("expired", HOST, *signed, command=("faketime", "2020-01-01", "openssl"))
    return {name: context(name) for name in ("good", "wrong-host", "self-signed", "expired")}


class Processes(contextlib.ExitStack):
    """Processes that end with this object."""

    def start(self, command, identity=AS_ALICE, **options):
        """Starts a process, as alice unless told otherwise."""
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **identity, **options)
        self.callback(end, process)
        return process

    def start_display(self, *options):
        """Starts an X server and returns its name and process."""
        reader, writer = os.pipe()
        process = self.start(
            ["Xvfb", "-displayfd", str(writer), "-ac", "-screen", "0", "1024x768x24", "-noreset", *options],
            identity=AS_ROOT,
            pass_fds=[writer],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        os.close(writer)
        with open(reader) as pipe:
            return ":" + pipe.readline().strip(), process


class Machine(Processes):
    """A display, the vendor's service, and an install folder with launcher and companion."""

    def __init__(self, folder="/home/alice/Applications", installed="2.5", bundle="/build/stage"):
        super().__init__()
        self.folder = pathlib.Path(folder)
        self.bundle = bundle
        self.installed = installed
        self.trace_number = 0

    def __enter__(self):
        AGENT.parent.mkdir(parents=True)
        shutil.copytree(self.bundle, self.folder, symlinks=True)
        self.companion = self.folder / "KR.app/Contents/MacOS/KR"
        if not self.companion.exists():
            self.companion.parent.mkdir(parents=True)
            self.companion.write_bytes(companion_program(self.installed))
            self.companion.chmod(0o755)
        self.login_program = self.folder / "Korvane"
        self.launcher_path = self.folder / "Korvane.app/Contents/MacOS/Korvane"
        self.marker = self.launcher_path.with_name("Korvane.version")
        self.marker.write_text(self.installed + "\n")
        self.flag = self.folder / f"{USER}_ManualExit.txt"
        own(HOME)
        own(self.folder)
        self.service = self.enter_context(service.Service(make_certificates()))
        self.display, _ = self.start_display()
        self.environment = os.environ | {"HOME": str(HOME), "USER": USER, "DISPLAY": self.display}
        return self

    def offer(self, companion, launcher="2.5", payload=None):
        """Sets what the service reports for the companion and the launcher, and the download."""
        self.service.versions["KR_CAP"] = f'"{companion}"'.encode()
        self.service.versions["Korvane_CAP"] = f'"{launcher}"'.encode()
        self.service.payload = companion_program(companion) if payload is None else payload

    def launch(self, path=None, environment=None, command=None, quickly=False, **options):
        """Starts the launcher, by another path or command if given. Its output goes to the file at .output.

        With quickly its sleeps return at once, and steps() tells what it does.
        """
        command = command or [str(path or self.launcher_path)]
        if quickly:
            STEP_LOG.write_text("")
            STEP_LOG.chmod(0o666)
            command = [*QUICKLY, *command]
        self.trace_number += 1
        output = pathlib.Path(f"/tmp/trace{self.trace_number}")
        with open(output, "wb") as stream:
            process = self.start(
                command,
                env=environment or self.environment,
                stderr=stream,
                stdout=stream,
                **options,
            )
        process.output = output
        return process

    def start_companion(self):
        """Starts the installed companion and returns its process id."""
        subprocess.run(
            ["open", "-n", str(self.folder / "KR.app")],
            check=True,
            env=self.environment,
            **AS_ALICE,
        )
        return until(companions, "the companion runs")[0]


def lay_tools():
    """Lays the only tools that a launcher with TOOLS as its PATH finds; each call of one is noted in CALLS."""
    TOOLS.mkdir(exist_ok=True)
    for name in ("open", "pgrep", "pkill"):
        lay_tool(name, f'exec /source/compat/bin/{name} "$@"')
    CALLS.write_text("")
    CALLS.chmod(0o666)


def lay_tool(name, body):
    """Puts a shell script in the place of a tool."""
    (TOOLS / name).write_text(f'#!/bin/sh\necho {name} "$@" >>{CALLS}\n{body}\n')
    (TOOLS / name).chmod(0o755)


def calls(name):
    """How each call of the tool was made: its arguments, in order."""
    return [line.removeprefix(name + " ") for line in CALLS.read_text().splitlines() if line.startswith(name)]


def steps():
    """What a launcher launched quickly has done so far, step by step."""
    found_steps = []
    for line in STEP_LOG.read_text(errors="replace").splitlines():
        for pattern, step in STEP_PATTERNS.items():
            found = re.search(pattern, line)
            if found:
                found_steps.append(" ".join([step, *found.groups()]))
    return "; ".join(found_steps).replace('\\"', '"').replace("\\\\", "\\") + "; "


def state(path):
    """What stays the same of a file or folder that is left alone."""
    status = path.lstat()
    return status.st_ino, status.st_mode, status.st_size, status.st_mtime_ns


def own(path):
    """Gives a folder and all in it to alice."""
    subprocess.run(["chown", "-hR", f"{UID}:{UID}", str(path)], check=True)


def end(process):
    if process.poll() is None:
        process.kill()
    process.wait()


def processes(name):
    """The ids of the processes of exactly this name that have not ended."""
    found = []
    for folder in pathlib.Path("/proc").iterdir():
        if folder.name.isdigit():
            with contextlib.suppress(OSError):
                status = (folder / "status").read_text()
                ended = re.search(r"^State:\tZ", status, re.M)
                if not ended and re.search(rf"^Name:\t{re.escape(name)}$", status, re.M):
                    found.append(int(folder.name))
    return sorted(found)


def end_all(name):
    """Kills every process of exactly this name, and waits until none is left."""
    for pid in processes(name):
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, 9)
    until(lambda: not processes(name), f"no process {name} is left")


def companions():
    return processes("KR")


def quit_companion(pid):
    """What the user's Quit does in the companion's menu, once it is up."""

    def listens():
        caught = re.search(r"^SigCgt:\t(\w+)", pathlib.Path(f"/proc/{pid}/status").read_text(), re.M)
        return int(caught[1], 16) & (1 << (signal.SIGUSR1 - 1))

    until(listens, "the companion listens")
    os.kill(pid, signal.SIGUSR1)
