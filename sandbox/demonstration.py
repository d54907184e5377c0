"""The launcher's main job, step by step, told to a person.

    demonstration.py [--stay]

Runs inside sandbox/enter, with --out for the launchers' output.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

import machine as sandbox
from machine import AGENT, companions, until

BEGIN = time.monotonic()


def say(text):
    print(f"{time.monotonic() - BEGIN:6.1f} s  {text}", flush=True)


def wait_for_companion(machine, version, *others):
    """Waits for the companion to come back and returns its process id."""
    pid = until(lambda: [pid for pid in companions() if pid not in others], "the companion runs")[0]
    text = machine.companion.read_text()
    assert f'VERSION = "{version}"' in text, f"the installed companion should be {version}"
    say(f"companion {version} runs: process {pid}, its executable is new ({len(text)} bytes)")
    return pid


def wait_for_end(launcher, status):
    launcher.wait(60)
    assert launcher.returncode == status, f"the launcher's status should be {status}"


def update(machine):
    machine.offer("2.6", payload=sandbox.companion_program("2.6", 300_000))
    old = machine.start_companion()
    say(f"companion 2.5 runs: process {old}; the service offers 2.6")
    launcher = machine.launch([machine.login_program])
    say(f"log-in: the program Korvane starts the launcher, process {launcher.pid}")
    machine.service.wait_for("KR_CAP")
    say("the launcher is told of 2.6; it stops the companion and waits 2 s")
    machine.service.wait_for("download")
    assert old not in companions(), "the old companion should have been stopped"
    say(f"process {old} is gone; the launcher downloads the new executable")
    pid = wait_for_companion(machine, "2.6", old)
    until(AGENT.exists, "the agent file is written")
    say(f"the launcher is current itself; it supervises, and has written {AGENT.name}")
    return launcher, pid


def bring_back(machine, old):
    machine.offer("2.7")
    os.kill(old, signal.SIGKILL)
    say(f"process {old} is killed; the service offers 2.7; the launcher looks every 30 s")
    return wait_for_companion(machine, "2.7", old)


def quit_by_hand(machine, launcher, pid):
    until(lambda: sandbox.catches(pid, signal.SIGUSR1), "the companion listens")
    os.kill(pid, signal.SIGUSR1)
    say(f"the user quits the companion, which writes {machine.flag.name}")
    wait_for_end(launcher, 0)
    assert not machine.flag.exists(), "the launcher should delete the flag"
    until(lambda: not companions(), "the companion ends")
    say("the launcher has deleted that and ended, status 0; so has the companion")


def outdated(machine):
    machine.offer("2.8", launcher="2.8")
    launcher = machine.launch([machine.login_program])
    say(f"next log-in: process {launcher.pid}; the service offers 2.8 of both")
    wait_for_companion(machine, "2.8")
    wait_for_end(launcher, 255)
    assert companions() and AGENT.exists(), "the companion and the agent file should stay"
    say("the outdated launcher has ended itself, status 255; the companion runs on, unsupervised")


def stay(machine):
    machine.offer("2.5")
    sandbox.end_all("KR")
    machine.start_companion()
    launcher = machine.launch()
    print(f"You are alice, with a launcher (process {launcher.pid}) and its companion: ps xf.")
    print(
        f"{launcher.output} is its trace; kill -USR1 $(pgrep -x KR) is the user's quit.", flush=True
    )
    shell = ["bash", "--norc"]
    subprocess.run(shell, env=machine.environment, cwd=machine.folder, **sandbox.AS_ALICE)


def main():
    with sandbox.Machine() as machine:
        try:
            launcher, pid = update(machine)
            pid = bring_back(machine, pid)
            quit_by_hand(machine, launcher, pid)
            outdated(machine)
        except (AssertionError, TimeoutError, subprocess.TimeoutExpired) as error:
            say(f"BROKEN: {error}")
            return 1
        finally:
            for trace in pathlib.Path("/tmp").glob("trace*"):
                shutil.copy(trace, "/out")
        print("All went as it should. The launchers' output: build/run/trace1, trace2", flush=True)
        if "--stay" in sys.argv:
            stay(machine)
    return 0


if __name__ == "__main__":
    sys.exit(main())
