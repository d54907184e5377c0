"""The built launcher, from its bundle, against a real service and real processes."""

import fcntl
import pathlib
import plistlib
import re
import shutil
import signal
import subprocess

import faults
import pytest
import tools
from machine import AGENT, HOME, companion_program, companions, end, end_all, own, processes
from machine import state, until
from strace import quickly, steps

LOCK = pathlib.Path("/tmp/Korvane.lock")
PATH_TRACE = pathlib.Path("/tmp/korvane_debug.txt")
AGENT_FILE = {"Label": "com.mervix.korvane", "RunAtLoad": True}
ODD_FOLDER = '/home/alice/My "Apps" $HOME `id` \\'
ODD_BUNDLE = '"/home/alice/My \\"Apps\\" \\$HOME \\`id\\` \\\\/KR.app"'

# What steps() tells of each part of the launcher's run.
LOCKED = "sleep 2; open Korvane.lock; "
BEGIN = LOCKED + "open korvane_debug.txt; "
COMPANION = "open Korvane.version; ask; "
UPDATE = (
    'run pkill -f "KR"; sleep 2; '
    "open KR.download; disk rename; ask; disk fchmod; disk fsync; disk rename; disk fsync; "
    "open korvane_debug.txt; run open -n "
)
LAUNCHER = "sleep 2; open Korvane.version; ask; "
FLAG = "open alice_ManualExit.txt; "
PASS = "sleep 1; "
CYCLE = PASS * 3 + FLAG + (PASS * 5 + FLAG) * 5 + PASS * 2 + "run pgrep -x KR; "


def said(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, **options).stdout


def descriptors(launcher):
    return said("ls", "-l", f"/proc/{launcher.pid}/fd")


def agent_file():
    """The agent file's properties, once it is complete."""
    until(lambda: AGENT.exists() and AGENT.read_text().endswith("</plist>\n"), "the agent file")
    return plistlib.loads(AGENT.read_bytes())


@pytest.mark.folder(ODD_FOLDER)
def test_newer_companion_is_stopped_replaced_and_started(machine):
    payload = companion_program("2.6", 3_000_000)
    machine.offer("2.6.0.0", payload=payload)
    old = machine.start_companion()
    launcher = machine.launch(quickly([machine.launcher_path]))
    machine.service.wait_for("Korvane_CAP")
    assert machine.companion.read_bytes() == payload
    assert machine.companion.stat().st_mode == 0o100755
    until(lambda: old not in companions(), "the old companion has been stopped")
    until(companions, "the companion runs")
    expected = BEGIN + COMPANION + UPDATE + ODD_BUNDLE + "; " + LAUNCHER + "sleep 1; "
    until(lambda: steps().startswith(expected), "every step in its order")
    until(lambda: not re.search("Apps|debug", descriptors(launcher)), "none of its files is open")

    post, get = (request.headers for request in machine.service.requests[:2])
    assert get == {"Host": "service.korvane.example", "Accept": "*/*"}
    form = {"Content-Length": "10", "Content-Type": "application/x-www-form-urlencoded"}
    assert post == get | form
    output = launcher.output.read_text()
    assert all(text in output for text in ("> POST /", "> GET /", "< HTTP/1.1 200"))


def test_current_companion_is_left_alone_without_a_window(machine):
    machine.offer("2.6.9.9", launcher="2.6.9.9")
    machine.marker.unlink()  # the one beside the executable counts, which was a link to another
    machine.marker.write_text("2.6\n")
    pid, before = machine.start_companion(), state(machine.companion)
    machine.launch()
    agent_file()
    assert machine.service.order() == ["KR_CAP", "Korvane_CAP"]
    assert (companions(), state(machine.companion)) == ([pid], before)
    shown = said("xdotool", "search", "--onlyvisible", "--name", ".*", env=machine.environment)
    assert len(shown.split()) == 1, "only the root window is shown"


def test_one_launcher_lives(machine):
    machine.offer("2.5")
    crowd = [machine.launch(umask=0) for _ in range(12)]
    until(lambda: [process.poll() for process in crowd].count(0) == 11, "all but one end")
    agent_file()
    assert machine.service.order() == ["KR_CAP", "Korvane_CAP"]
    assert LOCK.stat().st_mode == 0o100666
    PATH_TRACE.unlink()
    AGENT.unlink()
    assert machine.launch().wait(60) == 0
    assert not PATH_TRACE.exists() and not AGENT.exists()
    assert len(machine.service.requests) == 2

    end_all("Korvane")
    machine.launch()
    machine.service.wait_for("Korvane_CAP", 2)


@pytest.mark.parametrize(
    "plant", ["install -m 600 /dev/null", "ln -s alice", "ln alice", "mkfifo -m 666"]
)
def test_what_another_user_plants_in_tmp_is_left_alone(machine, plant):
    """In the lock file's place it keeps nobody out."""
    machine.offer("2.5")
    hers = pathlib.Path("/tmp/alice")
    hers.write_text("hers")
    own(hers)
    for path in (LOCK, PATH_TRACE):
        subprocess.run([*plant.split(), path], check=True, cwd="/tmp")
    for number in (1, 2):
        launcher = machine.launch(quickly([machine.launcher_path]))
        machine.service.wait_for("Korvane_CAP", number)
        assert not re.search("lock|debug|/tmp/alice", descriptors(launcher))
    assert hers.read_text() == "hers"


@pytest.mark.folder(ODD_FOLDER)
def test_every_way_to_start_finds_the_folder(machine):
    machine.offer("2.5")
    folder, launcher, program = machine.folder, machine.launcher_path, machine.login_program
    relative = f"../{folder.name}/Korvane.app/Contents/MacOS/Korvane"
    link = HOME / "link"
    link.symlink_to(launcher)
    for library in pathlib.Path("/usr/lib").glob("*/libwx_*.0"):  # the bundle brings its own
        subprocess.run(["mount", "--bind", "/dev/null", library], check=True)
    # What launchd gives, and a display.
    bare = {name: machine.environment[name] for name in ("HOME", "USER", "PATH", "DISPLAY")}
    # The launcher's own path as it is; from the log-in program the real one inside the bundle.
    for path, raw, arguments in [
        (link, link, []),
        (relative, folder / relative, ["one argument", "-x"]),
        (program, launcher, ["one argument", "-x"]),
        (program, launcher, []),
    ]:
        process = machine.launch(quickly([path, *arguments]), env=bare, cwd=folder)
        assert agent_file() == AGENT_FILE | {"ProgramArguments": [str(program)]}
        assert PATH_TRACE.read_text() == f"ret: 0\nraw path: {raw}\nsize: 4096\n"
        assert pathlib.Path(f"/proc/{process.pid}/exe").readlink() == launcher
        words = pathlib.Path(f"/proc/{process.pid}/cmdline").read_text().split("\0")
        assert words == [str(path if raw != launcher else launcher), *arguments, ""]
        end(process)
        AGENT.unlink()

    shutil.move(folder / "Korvane.app", HOME)
    process = machine.launch([program], stdout=subprocess.DEVNULL)
    assert process.wait(60) == 127
    reason = f"Korvane: cannot start {launcher}: No such file or directory\n"
    assert process.output.read_text() == reason


def test_path_that_is_too_long_is_none(machine):
    machine.offer("0.0", launcher="0.0")
    deep = HOME.joinpath(*["d" * 200] * 15)
    deep.mkdir(parents=True)
    (deep / "link").symlink_to(machine.launcher_path)
    machine.launch(quickly(["./" * 1000 + "link"]), cwd=deep)
    assert agent_file() == AGENT_FILE | {"ProgramArguments": ["/Korvane"]}
    size = len(f"{deep}/") + 2005
    assert PATH_TRACE.read_text() == f"ret: -1\nraw path: \nsize: {size}\n"


def test_user_name_that_is_empty_is_waited_for(machine):
    machine.launch(quickly([machine.launcher_path]), env=machine.environment | {"USER": ""})
    until(lambda: steps().count("sleep") > 9, "waiting")
    assert re.fullmatch(f"{LOCKED}(sleep 1; )+", steps()) and not machine.service.order()


def test_supervision_probes_every_cycle_and_obeys_only_the_exact_flag(machine):
    machine.offer("2.5")
    launcher = machine.launch(quickly([machine.launcher_path]))
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
    until(lambda: descriptors(launcher).count("\n") <= opened, "nothing more is open than before")
    children = ["ps", "--ppid", str(launcher.pid), "-o", "stat="]
    until(lambda: "Z" not in said(*children), "what it has run is collected")
    machine.flag.write_text("1\n")
    assert launcher.wait(60) == 0
    assert not machine.flag.exists() and companions() == [pid]
    assert len(machine.service.requests) == asked and state(machine.companion) == before
    until(lambda: not processes("strace"), "the whole script")
    last = f"(sleep 1; ){{3}}({FLAG}(sleep 1; ){{5}}){{,5}}{FLAG}"
    assert re.fullmatch(f"{BEGIN}{COMPANION}{LAUNCHER}({CYCLE}({COMPANION})?)*{last}", steps())


def test_flag_that_cannot_be_deleted_ends_the_launcher_all_the_same(machine):
    machine.offer("2.5")
    machine.flag.write_text("1")
    machine.folder.chmod(0o555)
    machine.environment["LOGNAME"] = machine.environment.pop("USER")
    assert machine.launch(quickly([machine.launcher_path])).wait(60) == 0
    assert machine.flag.exists()


def test_outdated_launcher_ends_itself(machine):
    machine.offer("2.6", launcher="2.6")
    assert machine.launch([machine.login_program]).wait(60) == 255
    assert machine.service.order() == ["KR_CAP", "download", "Korvane_CAP"]
    assert not AGENT.exists()


def told(launcher):
    """What in_loop has logged so far."""
    return re.findall(r"^in_loop: (.*)", launcher.output.read_text(errors="replace"), re.M)


@pytest.fixture
def in_loop(machine):
    """Starts the launcher inside a running event loop, from its place in the bundle."""
    shutil.copy("/build/tests/in_loop", machine.launcher_path)
    machine.environment["PATH"] = f"{tools.PATH}:/usr/bin"
    return lambda *arguments: machine.launch([machine.launcher_path, *arguments])


@pytest.mark.memory
@pytest.mark.parametrize("window", [["window"], []], ids=["with a window", "without"])
def test_outdated_launcher_ends_a_running_loop(machine, in_loop, window):
    """There wxExit returns: the window, if any, is told, and start-up goes on to its end."""
    machine.offer("2.5", launcher="2.6")
    launcher = in_loop(*window)
    assert launcher.wait(60) == 0
    joined, closed = (["joined"], ["told to close"]) if window else ([], [])
    begin = [*joined, "wxExit", "light", "supervised"]
    assert told(launcher) == [*begin, *closed, "left", "torn down"]
    assert AGENT.exists()


@pytest.mark.threads
@pytest.mark.parametrize("updating", [False, True], ids=["supervising", "updating"])
def test_flag_ends_the_loop(machine, in_loop, updating):
    tools.replace("open", "")  # a companion would delete the flag
    machine.offer("2.5")
    launcher = in_loop()
    machine.service.wait_for("KR_CAP", 3)
    if updating:
        write = faults.meanwhile(lambda _: machine.flag.write_text("1\n"), 1000)
        machine.service.faults["download"] = faults.once(write)
        machine.offer("2.6")
    else:
        machine.flag.write_text("1\n")
    assert launcher.wait(60) == 0 and not machine.flag.exists()
    assert told(launcher) == ["supervised", "left", "torn down"]
    assert (machine.companion.read_bytes() == companion_program("2.6")) == updating


@pytest.mark.threads
@pytest.mark.parametrize("downloading", [False, True], ids=["supervising", "downloading"])
def test_process_ends_under_its_thread(machine, in_loop, downloading):
    """Nothing waits for the thread, and all that it uses outlives everything else."""
    machine.offer("2.5")
    machine.environment["USER"] = "a user whose name does not fit into a string object"
    before = state(machine.companion)
    with open("/tmp/held", "w") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        launcher = in_loop()
        machine.service.wait_for("KR_CAP", 3)
        if downloading:
            machine.service.faults["download"] = faults.endless()
            machine.offer("2.6")

        def progress():
            assert launcher.poll() is None, f"ended with {launcher.returncode} under its thread"
            staged = sum(path.stat().st_size for path in machine.folder.glob(".KR.download"))
            return staged >> 20 if downloading else len(machine.service.requests)

        until(progress, "the first bytes")
        launcher.send_signal(signal.SIGUSR1)
        until(lambda: told(launcher)[-1] == "torn down", "the end")
        enough = progress() + 3
        until(lambda: progress() > enough, "the thread goes on")
    assert launcher.wait(60) == 0
    assert state(machine.companion) == before
