"""Stand-ins for tools, in a folder of their own; each call of one is noted."""

import pathlib

PATH = pathlib.Path("/tmp/tools/bin")
CALLS = pathlib.Path("/tmp/calls")


def replace(name, body):
    """Puts a shell script in the place of a tool."""
    (PATH / name).write_text(f'#!/bin/sh\necho {name} "$@" >>{CALLS}\n{body}\n')
    (PATH / name).chmod(0o755)


def install():
    """Puts in the tools that the launcher calls, working as ever, and forgets all calls."""
    PATH.mkdir(parents=True, exist_ok=True)
    for name in ("open", "pgrep", "pkill"):
        replace(name, f'exec /source/compat/bin/{name} "$@"')
    CALLS.write_text("")
    CALLS.chmod(0o666)


def calls(name=""):
    """How this tool was called, or each of them: its name and arguments, in order."""
    return [line for line in CALLS.read_text().splitlines() if line.startswith(name)]
