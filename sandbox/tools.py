"""The only tools that a launcher with this PATH finds; each call of one is noted."""
import pathlib

PATH = pathlib.Path("/tmp/tools")
CALLS = pathlib.Path("/tmp/calls")


def replace(name, body):
    """Puts a shell script in the place of a tool."""
    (PATH / name).write_text(f'#!/bin/sh\necho {name} "$@" >>{CALLS}\n{body}\n')
    (PATH / name).chmod(0o755)


def install():
    PATH.mkdir()
    for name in ("open", "pgrep", "pkill"):
        replace(name, f'exec /source/compat/bin/{name} "$@"')
    CALLS.write_text("")
    CALLS.chmod(0o666)


def calls(name):
    """How each call of the tool was made: its arguments, in order."""
    return [line.removeprefix(name + " ") for line in CALLS.read_text().splitlines() if line.startswith(name)]
