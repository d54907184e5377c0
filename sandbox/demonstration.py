"""The launcher's main job, step by step, told to a person. Runs inside sandbox/enter, with --out for the traces.

    demonstration.py [--stay]
"""
import os
import pathlib
import shutil
import subprocess
import sys
import time

import machine as sandbox

BEGIN = time.monotonic()


class Broken(Exception):
    """Something did not go as it should."""


def say(text):
    print(f"{time.monotonic() - BEGIN:6.1f} s  {text}", flush=True)


def expect(condition, what):
    if not condition:
        raise Broken(what)


def version_on_disk(machine):
    return machine.companion.read_text().split('VERSION = "')[1].split('"')[0]


def wait_for_companion(machine, version, other_than):
    """Waits for the companion to come back and returns its process id."""
    pid = sandbox.until(lambda: [pid for pid in sandbox.companions() if pid != other_than], "the companion runs")[0]
    expect(version_on_disk(machine) == version, f"the installed companion should be {version}")
    size = machine.companion.stat().st_size
    say(f"companion {version} runs: process {pid}, its executable is new ({size} bytes)")
    return pid


def update(machine):
    machine.offer("2.6", payload=sandbox.companion_program("2.6", 300_000))
    pid = machine.start_companion()
    say(
        f"companion {machine.installed} runs: process {pid}, {machine.companion.stat().st_size} bytes; "
        "the service offers 2.6"
    )
    launcher = machine.launch(machine.login_program)
    say(f"log-in: {machine.login_program.name} in the install folder starts the launcher, process {launcher.pid}")
    machine.service.wait_for("KR_CAP")
    say("the launcher has asked for the companion's version and was told 2.6; it stops the companion and waits 2 s")
    machine.service.wait_for("download")
    expect(pid not in sandbox.companions(), "the old companion should have been stopped")
    say(f"process {pid} is gone; the launcher downloads the new executable")
    pid = wait_for_companion(machine, "2.6", pid)
    machine.service.wait_for("Korvane_CAP")
    sandbox.until(sandbox.AGENT.exists, "the agent file is written")
    say(f"the launcher is up to date itself, supervises, and has written {sandbox.AGENT.name} for the next log-in")
    return launcher, pid


def bring_back(machine, pid):
    machine.offer("2.7")
    os.kill(pid, 9)
    say(
        f"process {pid} killed from outside, and the service now offers 2.7; "
        "waiting for the next probe (they come about every 30 s)"
    )
    machine.service.wait_for("download", 2)
    return wait_for_companion(machine, "2.7", pid)


def quit_by_hand(machine, launcher, pid):
    sandbox.quit_companion(pid)
    say(
        f"the user quits the companion, which writes {machine.flag.name} and waits for the launcher to read it "
        "(at most 5 s)"
    )
    status = launcher.wait(60)
    expect(
        status == 0 and not machine.flag.exists(), f"the launcher should delete the flag and end with 0, not {status}"
    )
    sandbox.until(lambda: not sandbox.companions(), "the companion ends")
    say("the launcher has deleted the flag and ended, status 0; so has the companion")


def outdated(machine):
    machine.offer("2.8", launcher="2.8")
    launcher = machine.launch(machine.login_program)
    say(f"next log-in: launcher {machine.installed} starts, process {launcher.pid}; the service offers 2.8 of both")
    wait_for_companion(machine, "2.8", None)
    status = launcher.wait(60)
    expect(status == 255, f"an outdated launcher should end with 255, not {status}")
    expect(sandbox.companions() and sandbox.AGENT.exists(), "the companion and the agent file should stay")
    say("the outdated launcher has ended itself, status 255; the companion runs on, and nobody supervises it")
    say("every log-in does the same until a new package brings a new marker: the agent file is still there")


def stay(machine):
    machine.offer("2.5")
    machine.start_companion()
    launcher = machine.launch()
    print(
        f"""
You are {sandbox.USER}, in a sandbox with a launcher (process {launcher.pid}) and companion {version_on_disk(machine)}.
  ps xf                               what runs
  tail -f {launcher.output}             the launcher's trace
  kill -USR1 $(pgrep -x KR)           the user quits the companion
Leave with exit; everything in here goes with it.""",
        flush=True,
    )
    subprocess.run(
        ["setpriv", f"--reuid={sandbox.UID}", f"--regid={sandbox.UID}", "--clear-groups", "bash", "--norc"],
        env=machine.environment | {"PS1": "sandbox:\\w$ ", "TERM": os.environ.get("TERM", "linux")},
        cwd=machine.folder,
    )


def main():
    with sandbox.Machine() as machine:
        try:
            launcher, pid = update(machine)
            pid = bring_back(machine, pid)
            quit_by_hand(machine, launcher, pid)
            outdated(machine)
        except (Broken, TimeoutError, subprocess.TimeoutExpired) as error:
            say(f"BROKEN: {error}")
            return 1
        finally:
            for trace in pathlib.Path("/tmp").glob("trace*"):
                shutil.copy(trace, "/out")
            print("The launchers' own traces: build/run/trace1, trace2", flush=True)
        print("All went as it should.", flush=True)
        if "--stay" in sys.argv:
            stay(machine)
    return 0


if __name__ == "__main__":
    sys.exit(main())
