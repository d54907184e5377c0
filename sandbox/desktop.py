"""Runs a program as alice on a desktop of its own: X server, window manager (openbox) and tray (trayer).

    desktop.py PROGRAM [ARGUMENT...]

The desktop's settings ask for dark windows. The program runs from a folder of its own, with the launcher's pictures
beside it. Pictures that it leaves in its current folder go to /out. Runs inside sandbox/enter; the exit status is the
program's.
"""
import contextlib
import os
import pathlib
import shutil
import subprocess
import sys

import machine

PICTURES = [pathlib.Path("/source/ui/art") / name for name in ("Korvane.bmp", "offline.png")]
TRAY = (
    "trayer --edge bottom --align right --widthtype request --height 26 --transparent false --tint 0xe8e8e8 "
    "--SetPartialStrut true"
)
PREFER_DARK = "[Settings]\ngtk-application-prefer-dark-theme=1\n"


def install(program):
    """Copies the program to a folder of its own, with the pictures, and returns its new path."""
    folder = machine.HOME / "program"
    folder.mkdir(exist_ok=True)
    for file in [program, *PICTURES]:
        shutil.copy(file, folder)
    machine.own(folder)
    return str(folder / pathlib.Path(program).name)


@contextlib.contextmanager
def desktop():
    """Yields the environment for programs on a fresh desktop; ends everything on it afterwards.

    DISPLAY_WITHOUT_IDLE_TIME names a second, bare X server that does not count the time since the last input.
    """
    with machine.Processes() as processes:
        settings = machine.HOME / ".config/gtk-3.0/settings.ini"
        settings.parent.mkdir(parents=True)
        settings.write_text(PREFER_DARK)
        machine.own(machine.HOME)
        display, _ = processes.start_display()
        plain, _ = processes.start_display("-extension", "MIT-SCREEN-SAVER")
        environment = os.environ | {
            "DISPLAY": display,
            "DISPLAY_WITHOUT_IDLE_TIME": plain,
            "HOME": str(machine.HOME),
            "USER": machine.USER,
        }
        quiet = {"env": environment, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        processes.start(["openbox"], **quiet)
        processes.start(TRAY.split(), **quiet)

        def ready():
            # Openbox may overlook what was asked of it while it started until something else comes.
            subprocess.run(["wmctrl", "-s", "0"], **quiet)
            windows = subprocess.run(["xprop", "-root", "_NET_CLIENT_LIST"], env=environment, capture_output=True)
            return b"0x" in windows.stdout

        machine.until(ready, "the window manager shows the tray")
        yield environment


if __name__ == "__main__":
    with desktop() as environment:
        command = [install(sys.argv[1]), *sys.argv[2:]]
        result = subprocess.run(command, env=environment, cwd=machine.HOME, **machine.AS_ALICE)
        for picture in machine.HOME.glob("*.png"):
            shutil.copy(picture, "/out")
    sys.exit(result.returncode)
