#!/usr/bin/python3
"""A stand-in for the companion: runs until it is ended, or until its user quits it with SIGUSR1.

Quitting leaves the manual-exit flag for the launcher. This text is also the download that the stand-in service offers:
the version is put in and the text padded to the size wanted.
"""
import os
import pathlib
import signal
import sys

VERSION = "0.0"


def quit(*_):
    folder = pathlib.Path(sys.argv[0]).parents[3]
    (folder / f"{os.environ['USER']}_ManualExit.txt").write_text("1\n")
    sys.exit()


signal.signal(signal.SIGUSR1, quit)
while True:
    signal.pause()
