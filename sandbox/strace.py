"""What a launcher does, step by step, as strace(1) sees it; and what it makes of system calls that
fail.
"""

import pathlib
import re

STEPS = pathlib.Path("/tmp/steps")
# -D: the launcher stays its parent's child. -f: threads and children too. --seccomp-bpf: stops only
# at calls traced.
STRACE = ["/usr/bin/strace", "-D", "-f", "--seccomp-bpf"]
QUICKLY = [*STRACE, "-qq", "-y", "-s", "999", "-o", str(STEPS)]
QUICKLY += ["-e", "inject=clock_nanosleep:retval=0"]
QUICKLY += [
    "-e",
    "trace=clock_nanosleep,openat,connect,execve,fchmod,fsync,?rename,?renameat,?renameat2",
]
# The lines of its log that count, and what steps() calls them.
PATTERNS = {
    r"clock_nanosleep\(.*{tv_sec=(\d+), tv_nsec=0}": "sleep",
    r"connect\(.*htons\(443\)": "ask",
    r"(fchmod|fsync|rename)\w*\(.*(?:KR.download|/MacOS>)": "disk",
    r"openat\(.*/(Korvane.lock|korvane_debug.txt|Korvane.version|\w+_ManualExit.txt"
    r"|KR.download).*O_": "open",
    r'execve\(.*\["sh", "-c", (?:"--", )?"(.*)"\]': "run",
}


def quickly(command):
    """The command, run so that its sleeps return at once and steps() tells what it does."""
    STEPS.write_text("")
    STEPS.chmod(0o666)
    return [*QUICKLY, *command]


def steps():
    """The steps so far, each ended by "; "."""
    found_steps = []
    for line in STEPS.read_text(errors="replace").splitlines():
        for pattern, step in PATTERNS.items():
            found = re.search(pattern, line)
            if found:
                found_steps.append(" ".join([step, *found.groups()]))
    return "; ".join(found_steps).replace('\\"', '"').replace("\\\\", "\\") + "; "


def failing(call, error, command):
    """The command, run so that the first such system call fails."""
    first = f"inject={call}:error={error}:when=1"
    return [*STRACE, "-o", "/dev/null", "-e", f"trace={call}", "-e", first, *command]
