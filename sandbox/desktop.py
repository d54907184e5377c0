"""Runs a command as alice on a desktop of its own: X server, window manager (openbox) and tray (trayer).

    desktop.py COMMAND [ARGUMENT...]

Runs inside sandbox/enter; the exit status is the command's.
"""
import contextlib
import os
import subprocess
import sys

import machine


@contextlib.contextmanager
def desktop():
    """Yields the environment for programs on a fresh desktop; ends everything on it afterwards.

    DISPLAY_WITHOUT_IDLE_TIME names a second, bare X server that does not count the time since the last input.
    """
    with machine.Processes() as processes:
        machine.HOME.mkdir(exist_ok=True)
        machine.own(machine.HOME)
        display, _ = processes.start_display()
        plain, _ = processes.start_display("-extension", "MIT-SCREEN-SAVER")
        environment = os.environ | {"DISPLAY": display, "DISPLAY_WITHOUT_IDLE_TIME": plain,
                                    "HOME": str(machine.HOME), "USER": machine.USER}
        quiet = {"env": environment, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        processes.start(["openbox"], **quiet)
        processes.start(["trayer", "--edge", "bottom", "--align", "right", "--widthtype", "request", "--height", "26",
                         "--transparent", "false", "--tint", "0xe8e8e8", "--SetPartialStrut", "true"], **quiet)

        def ready():
            manager = subprocess.run(["xprop", "-root", "_NET_SUPPORTING_WM_CHECK"], env=environment, capture_output=True)
            tray = subprocess.run(["xdotool", "search", "--class", "trayer"], env=environment, capture_output=True)
            return b"window id" in manager.stdout and tray.stdout

        machine.until(ready, "window manager and tray are up")
        yield environment


if __name__ == "__main__":
    with desktop() as environment:
        sys.exit(subprocess.run(sys.argv[1:], env=environment, user=machine.UID, group=machine.UID, extra_groups=[],
                                cwd=machine.HOME).returncode)
