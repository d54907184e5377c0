"""The built launcher, from its bundle, against a real service and real processes."""

import fcntl
import functools
import pathlib
import plistlib
import re
import shutil
import signal
import subprocess

import service
from machine import AGENT, HOME, LOCK, PATH_TRACE, Machine
from machine import companion_program, companions, end, end_all, own, processes, state, until
from strace import steps

# What steps() tells of each part of the launcher's run.
LOCKED = "sleep 2; open Korvane.lock; "
BEGIN = LOCKED + "open korvane_debug.txt; "
COMPANION = "open Korvane.version; ask; "
LAUNCHER = "sleep 2; open Korvane.version; ask; "
FLAG = "open alice_ManualExit.txt; "
CYCLE = (
    "sleep 1; " * 3 + FLAG + ("sleep 1; " * 5 + FLAG) * 5 + "sleep 1; " * 2 + "run pgrep -x KR; "
)


def descriptors(launcher):
    """What the launcher has open, a line each."""
    return subprocess.run(
        ["ls", "-l", f"/proc/{launcher.pid}/fd"], capture_output=True, text=True
    ).stdout


def test_newer_companion_is_stopped_replaced_and_started():
    payload = companion_program("2.6", 3_000_000)
    with Machine(folder='/home/alice/My "Apps" $HOME `id` \\') as machine:
        machine.offer("2.6.0.0", payload=payload)
        old = machine.start_companion()
        launcher = machine.launch(quickly=True)
        machine.service.wait_for("Korvane_CAP")
        assert (
            machine.service.requests[0].headers["Content-Type"]
            == "application/x-www-form-urlencoded"
        )
        assert (
            machine.companion.read_bytes() == payload
            and machine.companion.stat().st_mode == 0o100755
        )
        until(lambda: old not in companions(), "the old companion has been stopped")
        until(companions, "the companion runs")
        stop, start = 'run pkill -f "KR"; sleep 2; ', "open korvane_debug.txt; run open -n "
        quoted = '"/home/alice/My \\"Apps\\" \\$HOME \\`id\\` \\\\/KR.app"; '
        download = (
            "open KR.download; disk rename; ask; disk fchmod; disk fsync; disk rename; disk fsync; "
        )
        expected = BEGIN + COMPANION + stop + download + start + quoted + LAUNCHER + "sleep 1; "
        until(lambda: steps().startswith(expected), "every step in its order")
        until(
            lambda: not re.search("Apps|korvane_debug", descriptors(launcher)),
            "no file of its own is open",
        )
        output = launcher.output.read_text()
        assert all(text in output for text in ("> POST /", "> GET /", "< HTTP/1.1 200")), output


def test_not_newer_does_nothing_and_one_launcher_lives():
    with Machine() as machine:
        machine.offer("2.5.9.9", launcher="2.5.9.9")
        before, pid = state(machine.companion), machine.start_companion()
        crowd = [machine.launch(umask=0) for _ in range(12)]
        until(lambda: [process.poll() for process in crowd].count(0) == 11, "all but one end")
        until(AGENT.exists, "start-up is complete")
        assert machine.service.order() == ["KR_CAP", "Korvane_CAP"] and companions() == [pid]
        look = ["xdotool", "search", "--onlyvisible", "--name", ".*"]
        shown = subprocess.run(look, env=machine.environment, capture_output=True, text=True).stdout
        assert len(shown.split()) == 1, "only the root window is shown"
        assert state(machine.companion) == before and LOCK.stat().st_mode == 0o100666

        PATH_TRACE.unlink()
        AGENT.unlink()
        assert machine.launch().wait(60) == 0
        assert not PATH_TRACE.exists() and not AGENT.exists() and len(machine.service.requests) == 2

        end_all("Korvane")
        machine.launch()
        machine.service.wait_for("Korvane_CAP", 2)
        # A lock file that cannot be opened, or leads elsewhere, keeps nobody out and is left alone.
        pathlib.Path("/tmp/precious").touch()
        own("/tmp/precious")
        plants = ["install -m 600 /dev/null", "ln -s precious", "ln /tmp/precious", "mkfifo -m 666"]
        for number, plant in enumerate(plants):
            LOCK.unlink()
            subprocess.run([*plant.split(), LOCK], check=True)
            launcher = machine.launch(quickly=True)
            machine.service.wait_for("Korvane_CAP", number + 3)
            assert not re.search("Korvane.lock|precious", descriptors(launcher))


def test_every_way_to_start_finds_the_folder():
    with Machine(folder='/home/alice/My "Apps" $HOME `id` \\') as machine:
        machine.offer("2.5")
        folder, launcher = machine.folder, machine.launcher_path
        program = folder / "Korvane"
        agent = {
            "Label": "com.mervix.korvane",
            "ProgramArguments": [str(program)],
            "RunAtLoad": True,
        }
        relative = f"../{folder.name}/Korvane.app/Contents/MacOS/Korvane"
        link = HOME / "link"
        link.symlink_to(launcher)
        # The launcher's own path as it is; from the log-in program the real one inside the bundle.
        ways = [(link, link), (relative, folder / relative), (program, launcher)]
        for library in pathlib.Path("/usr/lib").glob("*/libwx_*.0"):  # the bundle brings its own
            subprocess.run(["mount", "--bind", "/dev/null", library], check=True)
        # A user name that is empty is waited for.
        nameless = machine.launch(quickly=True, environment=machine.environment | {"USER": ""})
        until(lambda: steps().count("sleep") > 9, "waiting")
        assert (
            re.fullmatch(f"{LOCKED}(sleep 1; )+", steps()) and not machine.service.order()
        ), steps()
        end(nameless)
        # The environment that launchd gives, and a display.
        bare = {name: machine.environment[name] for name in ("HOME", "USER", "PATH", "DISPLAY")}
        for path, raw in ways:
            process = machine.launch(
                command=[path, "one argument", "-x"], quickly=True, environment=bare, cwd=folder
            )
            until(
                lambda: AGENT.exists() and AGENT.read_text().endswith("</plist>\n"),
                "start-up is complete",
            )
            assert (
                PATH_TRACE.read_text() == f"ret: 0\nraw path: {raw}\nsize: 4096\n"
            ), PATH_TRACE.read_text()
            assert plistlib.loads(AGENT.read_bytes()) == agent
            assert pathlib.Path(f"/proc/{process.pid}/exe").readlink() == launcher
            command = pathlib.Path(f"/proc/{process.pid}/cmdline").read_text().split("\0")
            assert command == [
                str(launcher if raw == launcher else path),
                "one argument",
                "-x",
                "",
            ], command
            end(process)
            AGENT.unlink()

        # A path that is too long is none: the folder is then the root.
        deep = HOME.joinpath(*["d" * 200] * 15)
        deep.mkdir(parents=True)
        (deep / "link").symlink_to(launcher)
        machine.offer("0.0", launcher="0.0")
        process = machine.launch(command=["./" * 1000 + "link"], quickly=True, cwd=deep)
        until(lambda: AGENT.exists() and AGENT.read_text().endswith("</plist>\n"), "start-up")
        size = len(f"{deep}/") + 2005
        assert PATH_TRACE.read_text() == f"ret: -1\nraw path: \nsize: {size}\n"
        assert plistlib.loads(AGENT.read_bytes())["ProgramArguments"] == ["/Korvane"]
        end(process)

        shutil.move(folder / "Korvane.app", HOME)
        process = machine.launch(program)
        assert process.wait(60) == 127
        assert (
            process.output.read_text()
            == f"Korvane: cannot start {launcher}: No such file or directory\n"
        )


def test_supervision_probes_every_cycle_and_obeys_only_the_exact_flag():
    with Machine() as machine:
        machine.offer("2.5")
        launcher = machine.launch(quickly=True)
        machine.service.wait_for("KR_CAP", 2)
        opened = descriptors(launcher).count("\n")
        for number, text in enumerate(("0\n", "1\r\n", "\n1\n", " 1", "")):
            machine.service.wait_for("KR_CAP", 2 * number + 3)
            assert number == 0 or machine.flag.exists()
            machine.flag.write_text(text)

        # While the companion runs nothing is asked, though there is a newer one.
        pid = machine.start_companion()
        probes = steps().count("pgrep")
        until(lambda: steps().count("pgrep") > probes + 1, "a probe that sees the companion")
        machine.offer("2.6")
        asked, before = len(machine.service.requests), state(machine.companion)
        until(lambda: steps().count("pgrep") > probes + 5, "probes")
        until(
            lambda: descriptors(launcher).count("\n") <= opened,
            "nothing more is open than in the first cycle",
        )
        machine.flag.write_text("1\n")
        assert launcher.wait(60) == 0
        assert not machine.flag.exists() and companions() == [pid]
        assert len(machine.service.requests) == asked and state(machine.companion) == before
        until(lambda: not processes("strace"), "the whole script")
        begin = BEGIN + COMPANION + LAUNCHER
        last = f"(sleep 1; ){{3}}({FLAG}(sleep 1; ){{5}}){{,5}}{FLAG}"
        assert re.fullmatch(f"{begin}({CYCLE}({COMPANION})?)*{last}", steps()), steps()

        # A flag that cannot be deleted ends the launcher all the same.
        machine.flag.write_text("1")
        machine.folder.chmod(0o555)
        assert machine.launch(quickly=True).wait(60) == 0
        assert machine.flag.exists()


def test_outdated_launcher_ends_itself():
    with Machine() as machine:
        machine.offer("2.6", launcher="2.6")
        assert machine.launch(machine.login_program).wait(60) == 255
        assert (
            machine.service.order() == ["KR_CAP", "download", "Korvane_CAP"] and not AGENT.exists()
        )

        # Inside a running event loop wxExit returns: the window, if any, is told, start-up goes on
        # to its end, and then the loop ends.
        shutil.copy("/build/tests/in_loop", machine.launcher_path)
        for window, told in (["window"], ["wxExit", "told to close"]), ([], ["wxExit, dark"]):
            launcher = machine.launch(command=[machine.launcher_path, *window])
            assert launcher.wait(60) == 0
            output = launcher.output.read_text(errors="replace").splitlines()
            assert [line for line in output if re.match("wxExit|told", line)] == told, output
            assert "supervised" in output and AGENT.exists(), output
            AGENT.unlink()


def end_while(how, thread):
    """Nothing waits for the thread, and all that it uses is still there when all else has been torn
    down.
    """
    number, status = {"of_the_loop": (signal.SIGUSR1, 0), "by_exit": (signal.SIGUSR2, 7)}[how]
    with Machine() as machine, open("/tmp/held", "w") as held:
        shutil.copy("/build/tests/in_loop", machine.launcher_path)
        fcntl.flock(held, fcntl.LOCK_EX)
        machine.offer("2.5")
        launcher = machine.launch()
        machine.service.wait_for("KR_CAP", 3)
        if thread == "downloading":
            machine.service.faults["download"] = service.endless()
            machine.offer("2.6")

        def progress():
            assert launcher.poll() is None, f"ended with {launcher.returncode} under its thread"
            staged = sum(path.stat().st_size for path in machine.folder.glob(".KR.download"))
            return staged >> 20 if thread == "downloading" else len(machine.service.requests)

        before = state(machine.companion)
        until(progress, "the first bytes")
        launcher.send_signal(number)
        until(lambda: "torn down" in launcher.output.read_text(errors="replace"), "the end")
        assert "supervised\n" in launcher.output.read_text(
            errors="replace"
        ), "the thread is in its slot"
        enough = progress() + 3
        until(lambda: progress() > enough, "the thread goes on")
        fcntl.flock(held, fcntl.LOCK_UN)
        assert launcher.wait(60) == status and state(machine.companion) == before


TESTS = {name[5:]: test for name, test in globals().items() if name.startswith("test_")}
for how in ("of_the_loop", "by_exit"):
    for thread in ("supervising", "downloading"):
        TESTS[f"end_{how}_while_{thread}"] = functools.partial(end_while, how, thread)
