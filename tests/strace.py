"""What a launcher does, step by step, as strace(1) sees it; and system calls that fail or kill."""

import pathlib
import re

LOG = pathlib.Path("/tmp/steps")
# -D: the launcher stays its parent's child. -f: threads and children too. -y: descriptors with
# their paths. --seccomp-bpf (below): stops only at calls traced, and then injects no signals.
STRACE = ["/usr/bin/strace", "-D", "-f", "-qq", "-y", "-s", "999", "-o", LOG]
CALLS = "clock_nanosleep,openat,connect,execve,fchmod,fsync,?rename,?renameat,?renameat2"
# The lines of its log that count, and what steps() calls them.
PATTERNS = {
    r"clock_nanosleep\(.*{tv_sec=(\d+), tv_nsec=0}": "sleep",
    r"connect\(.*htons\(443\)": "ask",
    r"(fchmod|fsync|rename)\w*\(.*(?:KR.download|/MacOS>)": "disk",
    r"openat\(.*/(Korvane.lock|korvane_debug.txt|Korvane.version|alice_ManualExit.txt"
    r"|KR.download).*O_": "open",
    r'execve\(.*\["sh", "-c", (?:"--", )?"(.*)"\]': "run",
}


def injecting(calls, what, command, *options):
    """The command, run so that something happens at a system call, such as "fsync:error=EIO"."""
    LOG.write_text("")
    LOG.chmod(0o666)
    return [*STRACE, *options, "-e", f"trace={calls}", "-e", f"inject={what}", *command]


def quickly(command):
    """The command, run so that its sleeps return at once and steps() tells what it does."""
    return injecting(CALLS, "clock_nanosleep:retval=0", command, "--seccomp-bpf")


def steps():
    """The steps so far, each ended by "; "."""
    found_steps = []
    for line in LOG.read_text(errors="replace").splitlines():
        for pattern, step in PATTERNS.items():
            found = re.search(pattern, line)
            if found:
                found_steps.append(" ".join([step, *found.groups()]))
    return "; ".join(found_steps).replace('\\"', '"').replace("\\\\", "\\") + "; "
