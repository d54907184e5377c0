"""What the vendor's engineers run and hand out: a release, the installed folder, the package,
checks of both sides.
"""

import os
import pathlib
import plistlib
import shutil
import subprocess

import apple
import service
import tools
from apple import APPLICATION, INSTALLER, KEG, PACKAGE, TEAM, TOOLKIT, TOOLS
from installer import AGENT, BOB, HOUSE, Mac, running
from machine import AS_ALICE, AS_ROOT, HOME, UID, Machine, companion_program, end, until

PROJECT = pathlib.Path("/tmp/a folder/korvane")
IDENTITIES = ["--application", APPLICATION, "--installer", INSTALLER, "--notary-profile", "vendor"]


def release(*arguments, **changes):
    """Runs script/release with these stand-ins changed; returns how it ended, its calls, what it
    made.
    """
    shutil.rmtree(PROJECT / "build", ignore_errors=True)
    command = [
        PROJECT / "script/release",
        "--host",
        "vendor.example",
        "--companion",
        "/source/sandbox/KR.app",
    ]
    options = {"env": apple.install(changes), "cwd": TOOLKIT, "capture_output": True, "text": True}
    done = subprocess.run([*command, *arguments], **options)
    made = {path.name for path in PROJECT.glob("build/Korvane-*/*")}
    return done, " ".join(tools.calls()), made


def test_release_is_made_in_order_or_not_at_all():
    PROJECT.mkdir(parents=True)
    subprocess.run(
        [
            "cp",
            "-r",
            *(f"/source/{name}" for name in ("CMakeLists.txt", "packaging", "script")),
            PROJECT,
        ]
    )

    parts = {"Korvane-2.5.pkg", "Korvane.dSYM", "login_program.dSYM", "made-from.txt", "licences"}
    done, calls, made = release(*IDENTITIES, "--toolkit", ".")
    assert (
        made == parts | {"Korvane-2.5.sha256"}
        and f"={TOOLKIT}/bin/wx-" in calls
        and "_ERRORS=OFF" in calls
    ), calls
    lines = [
        "commit 123abc",
        "CMake 4.1, compiler Clang 17",
        f"wxWidgets 3.3.3 from {TOOLKIT}",
        f"libwx: {TOOLKIT}",
    ]
    lines += [f"libpng: {KEG}", f"Without a licence file: .{TOOLKIT}\n"]
    assert (PROJECT / "build/Korvane-2.5/made-from.txt").read_text().endswith("\n".join(lines))
    done, calls, made = release("--ad-hoc")
    assert done.returncode == 0 and "Korvane-2.5-ad-hoc.pkg" in made and "_ERRORS=ON" in calls, (
        done,
        calls,
    )
    assert not {"security", "productsign", "xcrun", "spctl"} & {*calls.split()}, calls

    submit, staple, expand = (
        "xcrun notarytool submit",
        "xcrun stapler staple",
        TOOLS["pkgutil --expand-full"],
    )
    table = [
        (
            "is there already",
            "uname",
            f"mkdir -p '{PROJECT}/build/Korvane-2.5-unfinished'; echo Darwin",
        ),
        ("into the keychain", "security find-identity", "echo '0 valid identities found'"),
        ("Build the companion for arm64", "lipo -archs", "echo x86_64"),
        ("Sign the companion.", "codesign --verify", "echo not signed at all; exit 1"),
        (
            "hardened runtime",
            "codesign --display",
            f"echo 'flags=0x0(none) Timestamp=today TeamIdentifier={TEAM}'",
        ),
        (
            "with a timestamp",
            "codesign --display",
            f"echo 'flags=0x1(runtime) TeamIdentifier={TEAM}'",
        ),
        (
            "with the same team",
            "codesign --display",
            "echo 'flags=0x1(runtime) Timestamp=x TeamIdentifier=OTHER12345'",
        ),
        ("the tests have found", "ctest --test-dir", "exit 8"),
        (
            "the address of vendor.example",
            "cmake --install",
            TOOLS["cmake --install"].replace("vendor.", "service."),
        ),
        ("needs macOS 26.10", "otool -l", "printf 'minos %s\\n' 26.2 26.10 14.0"),
        (
            "CPack.distribution",
            "pkgutil --expand-full",
            expand + "; sed -i /domains/d build/release/expanded/Distr*",
        ),
        (
            "components.plist",
            "pkgutil --expand-full",
            expand + f"; echo '<relocate>' >{PACKAGE}/PackageInfo",
        ),
        (
            "would not run it",
            "pkgutil --expand-full",
            expand + f"; chmod -x {PACKAGE}/Scripts/postinstall",
        ),
        ("what was signed", "codesign --verify", "case $* in *Payload*) exit 1 ;; esac"),
        ("installer identity", "pkgutil --check-signature", "exit 1"),
        ("store-credentials vendor", submit, "echo there are none: see store-credentials; exit 69"),
        ("notarytool log 7 ", submit, "echo '  id: 7'; echo offline; exit 1"),
        ("the log\n", submit, "printf '  id: 7\\n  status: Invalid\\n'"),
        ("ten minutes", "xcrun stapler validate", "exit 1"),
        ("Gatekeeper refuses", "spctl --assess", "exit 3"),
    ]
    for reason, call, does in table:
        done, calls, made = release(*IDENTITIES, **{call: does})
        kept = parts if submit in calls else set()
        assert done.returncode == 1 and reason in done.stderr and made == kept, (reason, done, made)
        assert ("store-credentials" in done.stderr) == ("store-credentials" in does), (reason, done)
    go_on = "\n".join(line for line in done.stderr.splitlines() if line.startswith("    "))
    subprocess.run(["sh", "-ec", go_on], env=apple.install({}), check=True)
    assert [*PROJECT.glob("build/Korvane-2.5/*.sha256")], go_on
    assert "of two teams" in release(*IDENTITIES, "--installer", apple.OTHER_INSTALLER)[0].stderr
    for tries in (20, 21):  # in ten minutes
        late = f"[ $(grep -c staple {tools.CALLS}) = {tries} ] && " + TOOLS[staple]
        done, calls, _ = release(*IDENTITIES, **{staple: late})
        assert done.returncode == (tries == 21) and calls.count("sleep 30") == tries - 1, (
            done,
            calls,
        )


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

    def sign(identity, **changes):
        command = f"/usr/bin/cmake -D FOLDER={stage} -D 'IDENTITY={identity}'"
        command += " -P /source/packaging/sign.cmake"
        status = subprocess.run(["sh", "-c", command], env=apple.install(changes)).returncode
        return status, [
            call.replace(f"{stage}/", "").removeprefix("codesign ") for call in tools.calls()
        ]

    seal = f"--force --sign {APPLICATION} --options runtime --timestamp"
    expected = [
        f"{seal} {library.relative_to(stage)}" for library in libraries if not library.is_symlink()
    ]
    expected += [f"{seal} --identifier com.mervix.korvane.log-in Korvane", f"{seal} Korvane.app"]
    expected += [f"--verify --strict --verbose=2 {code}" for code in ("Korvane", "Korvane.app")]
    assert sign(APPLICATION) == (0, expected), sign(APPLICATION)
    status, calls = sign("-", **{"codesign --verify": "exit 1"})
    assert status and "runtime" not in " ".join(calls), calls


def test_check_bundle_starts_and_ends_the_launcher():
    # The process has checked in when it is asked for the second time.
    type_of = """[ -e /tmp/asked ] && type='"BackgroundOnly"' || type='[ NULL ]'; >/tmp/asked"""
    late = type_of + '; echo "pid = $(pgrep -x Korvane) !signalled type=$type flavor=3"'
    table = [
        ("", {"lsappinfo list": late}),
        (
            "shows in the Dock",
            {"lsappinfo list": TOOLS["lsappinfo list"].replace("UIElement", "Foreground")},
        ),
        ("the seal of", {"codesign --verify": "exit 1"}),
        ("255\n", {"env -i": "exit 255"}),
        (
            "255; likely because alice is not logged in",
            {"env -i": "exit 255", "launchctl print": "exit 113"},
        ),
    ]
    with Machine() as machine:
        machine.offer("2.5")
        for reason, changes in table:
            environment = machine.environment | {"PATH": apple.install(changes)["PATH"]}
            command = ["/source/script/check-bundle", machine.folder]
            done = subprocess.run(
                command, env=environment, capture_output=True, text=True, **AS_ALICE
            )
            assert (
                done.returncode == bool(reason)
                and reason in done.stderr
                and not machine.flag.exists()
            ), done


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


# The package over what runs: afterwards the user has one launcher and one companion, the new ones.
FLAG = f"{HOUSE}/Applications/alice_ManualExit.txt tells the launcher to end\n"
KR, LAUNCHER, KILLED = "sent SIGTERM to KR\n", "sent SIGTERM to Korvane\n", "sent SIGKILL to KR\n"
AGAIN, END = "something has been started meanwhile\n", "nothing of alice's runs now\n"
BOTH = ["KR", "Korvane"]


def install(mac, version, *expected, **how):
    said = mac.run("preinstall", **how)
    assert said in expected and not running() and not mac.flag.exists(), (said, running())
    asked = len(mac.service.requests)
    AGENT.unlink(missing_ok=True)
    mac.copy(version)
    assert not running() and len(mac.service.requests) == asked
    mac.run("postinstall", **how)
    until(AGENT.exists, "start-up is complete")
    assert mac.service.order()[asked:] == ["KR_CAP", "download", "Korvane_CAP"]
    until(lambda: running() == BOTH, "exactly one of each")
    assert running(BOB) == BOTH and not mac.flag.exists() and AGENT.stat().st_uid == UID


def test_package_waits_for_an_update_and_goes_back():
    """The update's pkill matches the script, and its companion ends or deletes the flag."""

    def flag_first(handler, content):
        handler.service.faults.clear()
        until(mac.flag.exists, "the flag")
        handler.send(200, content)

    with Mac() as mac:
        mac.service.faults["version"] = flag_first
        mac.open("Korvane.app")
        mac.service.wait_for("KR_CAP")
        install(mac, "2.7", FLAG + KR + END, FLAG + END)
        install(mac, "2.4", FLAG + KR + END)


def test_package_ends_what_hangs_and_what_comes_late():
    """A launcher hangs in an "open -n", which starts a companion once the launcher has ended. That
    companion ignores SIGTERM, and when it is killed another comes. Here no minute is waited for.
    """
    rest = "do /usr/bin/sleep 0.1; done >&2"
    hang = f"while [ ! -e /tmp/late ] && /usr/bin/pgrep -U 1000 -x Korvane; {rest}; >/tmp/late"
    come = f">/tmp/again; rm /tmp/deaf; open -n ~/*/KR.app; until [ -e /tmp/deaf ]; {rest}"
    with Mac() as mac:
        deaf = b"\nsignal.signal(signal.SIGTERM, signal.SIG_IGN)\nopen('/tmp/deaf', 'w')\nVERSION"
        mac.service.payload = companion_program("9.0").replace(b"\nVERSION", deaf)
        tools.replace(
            "open", f'case "$*" in -n*KR.app) {hang} ;; esac; exec /source/compat/bin/open "$@"'
        )
        once = '[ "$1$5" = -KILLKR ] && [ ! -e /tmp/again ] || exit 0'
        tools.replace("pkill", f'/source/compat/bin/pkill "$@" || exit; {once}; {come}')
        tools.replace("sleep", f"/usr/bin/sleep 0.1; until [ $1 = 1 ] || [ -e /tmp/deaf ]; {rest}")
        mac.open("Korvane.app")
        until(lambda: tools.calls(f"open -n {mac.folder}/KR.app"), "the launcher hangs")
        install(mac, "2.7", FLAG + LAUNCHER + KR + KILLED + AGAIN + KR + KILLED + END)
        assert " ".join(tools.calls()).partition("pkill -TERM")[0].count("sleep 1 ") == 60


def test_package_goes_over_an_outdated_launcher_as_root():
    shutil.copytree("/source/packaging", "/root/packaging")
    os.chmod("/root", 0o700)
    with Mac() as mac:
        mac.offer("9.0", launcher="2.6")
        mac.open("Korvane.app")
        until(lambda: running() == ["KR"], "the outdated launcher has ended")
        mac.flag.write_text("1\n")
        install(
            mac,
            "2.7",
            KR + END,
            identity=AS_ROOT,
            folder="/root/packaging",
            HOME="/root",
            USER="root",
        )


def test_package_in_a_new_account():
    with Mac() as mac:
        mac.offer("2.5")
        tools.replace("launchctl", "exit 113")
        (HOME / "link").symlink_to(HOUSE)
        mac.run("postinstall", HOME / "link")
        written = AGENT.read_bytes()
        AGENT.unlink()
        launcher = mac.launch(plistlib.loads(written)["ProgramArguments"][0])
        until(
            lambda: AGENT.exists() and AGENT.read_bytes() == written,
            "the launcher has written the same",
        )
        end(launcher)
        tools.replace("launchctl", "")
        mac.run("postinstall", "/", USER="")
        mac.service.wait_for("Korvane_CAP", 2)
        for home in ("/root", "/nowhere", ""):
            for script in ("preinstall", "postinstall"):
                assert "nothing done" in mac.run(script, home, AS_ROOT, HOME="")
        assert running() == BOTH


TESTS = {name[5:]: test for name, test in globals().items() if name.startswith("test_")}
