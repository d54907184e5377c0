"""The programs in C++ that need a desktop: X server, window manager (openbox), tray."""

import os
import pathlib
import shutil
import subprocess

import machine as sandbox
import pytest
from machine import HOME

FOLDER = HOME / "prógram"


@pytest.mark.memory
@pytest.mark.parametrize("program", ["system", "window"])
def test_program(program):
    """Runs as alice, from a folder of its own with the launcher's pictures."""
    FOLDER.mkdir(parents=True)
    art = pathlib.Path("/source/ui/art")
    for file in (f"/build/tests/{program}_tests", art / "Korvane.bmp", art / "offline.png"):
        shutil.copy(file, FOLDER)
    sandbox.own(HOME)
    with sandbox.Processes() as processes:
        environment = os.environ | {"HOME": str(HOME), "USER": sandbox.USER}
        environment["DISPLAY"] = processes.start_display()
        quiet = {"env": environment, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        processes.start(["openbox", "--startup", "wmsystemtray"], **quiet)
        look = ["xdotool", "search", "--onlyvisible", "--class", "wmsystemtray"]
        sandbox.until(lambda: subprocess.run(look, **quiet).returncode == 0, "the tray is shown")
        command = [FOLDER / f"{program}_tests", "/build/login_program/Korvane"]
        done = subprocess.run(command, env=environment, cwd=HOME, **sandbox.AS_ALICE)
    assert done.returncode == 0
