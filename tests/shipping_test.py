"""What the vendor's engineers hand out, and the program that asks their service."""

import os
import pathlib
import plistlib
import re
import shutil
import signal
import subprocess

import service
import tools
from machine import AGENT, AS_ALICE, AS_ROOT, HOME, UID, Machine, processes, until

BOB = 1001
BOTH = ["KR", "Korvane"]


def test_installed_folder_can_be_sealed():
    """Code alone where code belongs, and links that lead there; signed from the inside out."""
    stage = pathlib.Path("/tmp/stage")
    shutil.copytree("/build/stage", stage, symlinks=True)
    contents = stage / "Korvane.app/Contents"
    libraries = sorted((contents / "Frameworks").iterdir())
    data = {"Korvane.bmp", "Korvane.version", "offline.png"}
    assert {*os.listdir(stage)} == {"KR.app", "Korvane", "Korvane.app"}
    assert {*os.listdir(contents / "MacOS")} == {"Korvane", *data}
    assert {*os.listdir(contents / "Resources")} == {"Korvane.icns", *data}
    assert all(
        (contents / "MacOS" / name).readlink() == pathlib.Path("../Resources", name)
        for name in data
    )
    assert all(library.resolve() in libraries and "libwx_" in library.name for library in libraries)
    for program in (
        stage / "Korvane",
        contents / "MacOS/Korvane",
        stage / "KR.app/Contents/MacOS/KR",
    ):
        assert os.access(program, os.X_OK), program
    assert (contents / "MacOS/Korvane.version").read_text() == "2.5\n"

    text = (contents / "Info.plist").read_bytes()
    properties = plistlib.loads(text)
    assert properties["LSUIElement"] is properties["LSAppNapIsDisabled"] is True, properties
    assert (
        properties["CFBundleIdentifier"] == "com.mervix.korvane"
        and properties["LSMinimumSystemVersion"] == "26.0"
    )
    assert properties["CFBundleVersion"] == properties["CFBundleShortVersionString"] == "2.5"
    assert (
        b"CFBundleExecutable</key>\n  <string>Korvane<" in text
    )  # CMake's fixup_bundle reads lines
    components = plistlib.loads(pathlib.Path("/build/packaging/components.plist").read_bytes())
    assert [bundle["RootRelativeBundlePath"][13:] for bundle in components] == [
        "Korvane.app",
        "KR.app",
    ], components
    assert not any(
        bundle["BundleIsRelocatable"] or bundle["BundleIsVersionChecked"] for bundle in components
    )


def test_signing_goes_from_the_inside_out():
    stage = pathlib.Path("/tmp/stage")
    shutil.copytree("/build/stage", stage, symlinks=True)
    tools.install()

    def sign(identity):
        command = ["cmake", "-D", f"FOLDER={stage}", "-D", f"IDENTITY={identity}"]
        command += ["-P", "/source/packaging/sign.cmake"]
        environment = os.environ | {"PATH": f"{tools.PATH}:/usr/bin"}
        status = subprocess.run(command, env=environment).returncode
        return status, [call.replace(f"{stage}/", "") for call in tools.calls("codesign")]

    tools.replace("codesign", "")
    libraries = sorted(stage.glob("Korvane.app/Contents/Frameworks/*"))
    seal = "codesign --force --sign Developer ID --options runtime --timestamp"
    expected = [f"{seal} {path.relative_to(stage)}" for path in libraries if not path.is_symlink()]
    expected += [f"{seal} --identifier com.mervix.korvane.log-in Korvane", f"{seal} Korvane.app"]
    expected += [
        f"codesign --verify --strict --verbose=2 {code}" for code in ("Korvane", "Korvane.app")
    ]
    assert sign("Developer ID") == (0, expected)
    tools.install()
    tools.replace("codesign", "[ $1 != --verify ]")
    status, calls = sign("-")
    assert status and "runtime" not in " ".join(calls), calls


def test_service_check_asks_as_the_launcher_does():
    new, old = pathlib.Path("/root/new"), pathlib.Path("/root/old")
    old.touch()

    def check(*arguments):
        command = ["/build/packaging/service_check", *arguments]
        done = subprocess.run(command, capture_output=True, text=True)
        return done.returncode, done.stdout

    with Machine() as machine:
        machine.offer("2.6.1.4", launcher="2.5", payload=b"..." * 1000)
        assert check() == (0, "KR_CAP 2.6.1.4\nKorvane_CAP 2.5.0.0\n")
        assert check(new) == (0, "3000 bytes\n") and new.stat().st_mode == 0o100755
        assert machine.service.order() == ["KR_CAP", "Korvane_CAP", "download"]
        for wrong in ([old], ["-h"], [new, old]):
            assert check(*wrong) == (2, "")
        machine.service.faults["download"] = service.cut(100)
        new.unlink()
        assert check(new) == (1, "")
        machine.offer("2.6", launcher="none")
        assert check() == (1, "KR_CAP 2.6.0.0\nKorvane_CAP 0.0.0.0\n")
        machine.offer("none", launcher="2.6")
        assert check() == (1, "KR_CAP 0.0.0.0\nKorvane_CAP 2.6.0.0\n")


def running(uid=UID):
    """The names of a user's companions and launchers that run."""
    return [name for name in BOTH for _ in processes(name, uid)]


def test_package_replaces_what_runs():
    """Whatever runs of alice's ends before and comes back after; another user's stays."""
    with Machine() as machine:

        def run(script, home="/", identity=AS_ALICE):
            command = [f"/source/packaging/{script}", "/KR.pkg", home, home, "/"]
            environment = machine.environment | {"HOME": "/root", "PATH": f"{tools.PATH}:/usr/bin"}
            options = {"env": environment, "stdout": subprocess.PIPE, "text": True}
            done = subprocess.run(command, **options, **identity)
            return done.returncode, done.stdout

        tools.install()
        # An update's pkill matches the package's name in the script's arguments.
        tools.replace("sleep", "/usr/bin/pkill -f KR.pkg; exec /usr/bin/sleep $1")
        # On a Mac what is opened gets launchd's environment.
        update = f"/usr/bin/pkill -f KR.pkg; HOME={HOME}"
        tools.replace("open", f'{update} exec /source/compat/bin/open "$@"')
        for name in BOTH:
            shutil.copy("/usr/bin/sleep", f"/tmp/{name}")
            machine.start([f"/tmp/{name}", "999"], identity={"user": BOB})
        machine.offer("2.5")
        machine.start_companion()
        machine.open("Korvane.app")
        until(AGENT.exists, "start-up is complete")

        status, said = run("preinstall", identity=AS_ROOT)
        assert status == 1 and "sudo -H -u alice installer -pkg /KR.pkg" in said
        assert running() == BOTH
        os.kill(processes("KR", UID)[0], signal.SIGSTOP)  # SIGTERM does not end it
        assert run("preinstall") == (0, "ended Korvane\nended KR\nkilled KR\n")
        until(lambda: not running(), "nothing of alice's runs")
        sleeps = " ".join(tools.calls("sleep"))
        assert re.fullmatch("(sleep 1 ){0,9}sleep 2( sleep 1){10}", sleeps), sleeps
        machine.flag.write_text("1\n")
        assert run("preinstall") == (0, "") and not machine.flag.exists()

        shutil.rmtree(HOME / "Library")
        said = f"made {AGENT.parent}\nstarted the companion\nstarted the launcher\n"
        assert run("postinstall") == (0, said) and AGENT.parent.exists()
        machine.service.wait_for("Korvane_CAP", 2)
        assert running() == running(BOB) == BOTH

        tools.replace("open", "exit 1")
        status, said = run("postinstall", HOME)
        assert status == 0 and "Korvane.app has to be opened once" in said


TESTS = {name[5:]: test for name, test in globals().items() if name.startswith("test_")}
