"""What the vendor's engineers hand out, and the program that asks their service."""

import os
import pathlib
import plistlib
import re
import shutil
import signal
import subprocess

import faults
import pytest
import tools
from machine import AGENT, AS_ALICE, HOME, processes, until

BOB = 1001
BOTH = ["KR", "Korvane"]
DATA = {"Korvane.bmp", "Korvane.version", "offline.png"}


@pytest.fixture
def stage():
    """A copy of the installed folder."""
    return pathlib.Path(shutil.copytree("/build/stage", "/tmp/stage", symlinks=True))


def test_installed_folder_has_code_alone_where_code_belongs(stage):
    contents = stage / "Korvane.app/Contents"
    assert {*os.listdir(stage)} == {"KR.app", "Korvane", "Korvane.app"}
    assert {*os.listdir(contents / "MacOS")} == {"Korvane", *DATA}
    assert {*os.listdir(contents / "Resources")} == {"Korvane.icns", *DATA}
    for name in DATA:
        assert (contents / "MacOS" / name).readlink() == pathlib.Path("../Resources", name)
    for library in (contents / "Frameworks").iterdir():
        assert library.resolve().parent == contents / "Frameworks" and "libwx_" in library.name
    for code in ("Korvane", "Korvane.app/Contents/MacOS/Korvane", "KR.app/Contents/MacOS/KR"):
        assert os.access(stage / code, os.X_OK)
    assert (contents / "MacOS/Korvane.version").read_text() == "2.5\n"


def test_property_lists(stage):
    text = (stage / "Korvane.app/Contents/Info.plist").read_bytes()
    # CMake's fixup_bundle reads it line by line.
    assert b"CFBundleExecutable</key>\n  <string>Korvane<" in text
    properties = plistlib.loads(text)
    assert properties["LSUIElement"] is properties["LSAppNapIsDisabled"] is True
    assert properties["CFBundleIdentifier"] == "com.mervix.korvane"
    assert properties["CFBundleVersion"] == properties["CFBundleShortVersionString"] == "2.5"
    assert properties["LSMinimumSystemVersion"] == "26.0"
    components = plistlib.loads(pathlib.Path("/build/packaging/components.plist").read_bytes())
    for each, bundle in zip(components, ("Korvane.app", "KR.app"), strict=True):
        assert each["RootRelativeBundlePath"] == f"Applications/{bundle}"
        assert each["BundleOverwriteAction"] == "upgrade"
        assert each["BundleIsRelocatable"] is each["BundleIsVersionChecked"] is False


@pytest.mark.parametrize("identity", ["ID", "-"])
def test_signing_goes_from_the_inside_out(stage, identity):
    def sign(codesign):
        tools.install()
        tools.replace("codesign", codesign)
        command = ["/usr/bin/cmake", "-D", f"FOLDER={stage}", "-D", f"IDENTITY={identity}"]
        command += ["-P", "/source/packaging/sign.cmake"]
        return subprocess.run(command, env={"PATH": f"{tools.PATH}:/usr/bin"}).returncode

    assert sign("exit 0") == 0
    libraries = sorted(stage.glob("Korvane.app/Contents/Frameworks/*"))
    code = [str(path) for path in libraries if not path.is_symlink()]
    code += [f"--identifier com.mervix.korvane.log-in {stage}/Korvane", f"{stage}/Korvane.app"]
    options = "" if identity == "-" else "--options runtime --timestamp "
    expected = [f"codesign --force --sign {identity} {options}{each}" for each in code]
    verify = "codesign --verify --strict --verbose=2"
    expected += [f"{verify} {stage}/Korvane", f"{verify} {stage}/Korvane.app"]
    assert tools.calls() == expected
    for refused in ("Korvane", "Korvane.app", libraries[-1].name):
        assert sign(f'case "$*" in --force*{refused}) exit 1 ;; esac') != 0
    assert sign("[ $1 != --verify ]") != 0


def test_service_check_asks_as_the_launcher_does(machine):
    new, old = pathlib.Path("/root/new"), pathlib.Path("/root/old")
    old.touch()

    def check(*arguments):
        command = ["/build/packaging/service_check", *arguments]
        done = subprocess.run(command, capture_output=True, text=True)
        return done.returncode, done.stdout

    machine.offer("2.6.1.4", launcher="2.5", payload=b"..." * 1000)
    assert check() == (0, "KR_CAP 2.6.1.4\nKorvane_CAP 2.5.0.0\n")
    assert check(new) == (0, "3000 bytes\n") and new.stat().st_mode == 0o100755
    assert machine.service.order() == ["KR_CAP", "Korvane_CAP", "download"]
    for wrong in ([old], ["-h"], [new, old]):
        assert check(*wrong) == (2, "")
    machine.service.faults["download"] = faults.reset()
    assert check("/root/other") == (1, "")
    for companion, launcher in ("2.6", "none"), ("none", "0.1"):
        machine.offer(companion, launcher)
        assert check()[0] == 1


def running(uid):
    """The names of a user's companions and launchers that run."""
    return [name for name in BOTH for _ in processes(name, uid)]


def test_package_replaces_what_runs(machine):
    """All of alice's ends before and comes back after; another user's stays."""
    # An update's pkill matches the package's name in the script's arguments.
    tools.replace("sleep", "/usr/bin/pkill -f KR.pkg; exec /usr/bin/sleep $1")
    # On a Mac what is opened gets launchd's environment.
    update = f"/usr/bin/pkill -f KR.pkg; HOME={HOME}"
    tools.replace("open", f'{update} exec /source/compat/bin/open "$@"')
    for name in BOTH:
        shutil.copy("/usr/bin/sleep", f"/tmp/{name}")
        machine.start([f"/tmp/{name}", "999"], identity={"user": BOB})
    machine.offer("2.5")
    companion = machine.start_companion()
    machine.open("Korvane.app")
    until(AGENT.exists, "start-up is complete")

    def run(script, home="/", identity=AS_ALICE):
        command = [f"/source/packaging/{script}", "/KR.pkg", home, home, "/"]
        environment = machine.environment | {"HOME": "/root", "PATH": f"{tools.PATH}:/usr/bin"}
        options = {"env": environment, "stdout": subprocess.PIPE, "text": True}
        done = subprocess.run(command, **options, **identity)
        return done.returncode, done.stdout

    status, said = run("preinstall", identity={})
    assert status == 1 and "sudo -H -u alice installer -pkg /KR.pkg" in said
    assert running(1000) == BOTH
    os.kill(companion, signal.SIGSTOP)  # SIGTERM does not end it
    assert run("preinstall") == (0, "ended Korvane\nended KR\nkilled KR\n")
    until(lambda: not running(1000), "nothing of alice's runs")
    sleeps = " ".join(tools.calls("sleep"))
    assert re.fullmatch("(sleep 1 ){0,9}sleep 2( sleep 1){10}", sleeps)
    machine.flag.write_text("1\n")
    assert run("preinstall") == (0, "") and not machine.flag.exists()

    shutil.rmtree(HOME / "Library")
    said = f"made {AGENT.parent}\nstarted the companion\nstarted the launcher\n"
    assert run("postinstall") == (0, said) and AGENT.parent.exists()
    machine.service.wait_for("Korvane_CAP", 2)
    assert running(1000) == running(BOB) == BOTH

    tools.replace("open", "exit 1")
    status, said = run("postinstall", HOME)
    assert status == 0 and "Korvane.app has to be opened once" in said
