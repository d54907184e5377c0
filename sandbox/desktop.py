"""Runs a program as alice on a desktop of its own: X server, window manager (openbox) and tray
(wmsystemtray).

    desktop.py PROGRAM [ARGUMENT...]

The program runs from a folder of its own, with the launcher's pictures beside it. Pictures that it
leaves in its current folder go to /out. DISPLAY_WITHOUT_IDLE_TIME names a second, bare X server,
which does not count the time since the last input. Runs inside sandbox/enter; the exit status is
the program's.
"""

import os
import pathlib
import shutil
import subprocess
import sys

import machine

FOLDER = machine.HOME / "program"


def main():
    FOLDER.mkdir(parents=True)
    for file in (sys.argv[1], "/source/ui/art/Korvane.bmp", "/source/ui/art/offline.png"):
        shutil.copy(file, FOLDER)
    machine.own(machine.HOME)
    with machine.Processes() as processes:
        display, _ = processes.start_display()
        plain, _ = processes.start_display("-extension", "MIT-SCREEN-SAVER")
        environment = os.environ | {
            "DISPLAY": display,
            "DISPLAY_WITHOUT_IDLE_TIME": plain,
            "HOME": str(machine.HOME),
            "USER": machine.USER,
        }
        quiet = {
            "env": environment,
            "stdout": subprocess.DEVNULL,
            "stderr": subprocess.DEVNULL,
        }
        processes.start(["openbox", "--startup", "wmsystemtray"], **quiet)
        look = ["xdotool", "search", "--onlyvisible", "--class", "wmsystemtray"]
        machine.until(
            lambda: subprocess.run(look, **quiet).returncode == 0,
            "the window manager shows the tray",
        )
        command = [FOLDER / pathlib.Path(sys.argv[1]).name, *sys.argv[2:]]
        status = subprocess.run(
            command, env=environment, cwd=machine.HOME, **machine.AS_ALICE
        ).returncode
        for picture in machine.HOME.glob("*.png"):
            shutil.copy(picture, "/out")
    return status


if __name__ == "__main__":
    sys.exit(main())
