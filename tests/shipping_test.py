"""What the vendor's engineers run and hand out: a release, the installed folder, the check of a service."""

import os
import pathlib
import plistlib
import shutil
import subprocess

import apple
import service
import tools
from apple import APPLICATION, INSTALLER, PACKAGE, TEAM, TOOLS
from machine import AS_ALICE, Machine

PROJECT = pathlib.Path("/tmp/a folder/korvane")
IDENTITIES = ["--application", APPLICATION, "--installer", INSTALLER, "--notary-profile", "vendor"]


def release(*arguments, **changes):
    """Runs script/release with these stand-ins changed; returns how it ended, how its calls begin, what it made."""
    shutil.rmtree(PROJECT / "build", ignore_errors=True)
    command = [PROJECT / "script/release", "--host", "vendor.example", "--companion", "/source/sandbox/KR.app"]
    done = subprocess.run([*command, *arguments], env=apple.install(changes), capture_output=True, text=True)
    made = {path.name for path in PROJECT.glob("build/Korvane-*/*")}
    return done, [" ".join(call.split()[:2]) for call in tools.calls()], made


def test_release_is_made_in_order_or_not_at_all():
    (PROJECT / "script").mkdir(parents=True)
    shutil.copy("/source/script/release", PROJECT / "script")
    shutil.copy("/source/CMakeLists.txt", PROJECT)
    shutil.copytree("/source/packaging", PROJECT / "packaging")

    begin = ["lipo -archs", "codesign --verify"]
    packed = ["cmake --preset", "cmake --build", "ctest --test-dir", "cmake --install", "cpack --config"]
    packed += ["pkgutil --expand-full", *["codesign --verify"] * 3]
    notarised = ["productsign --sign", "pkgutil --check-signature", "xcrun notarytool", "plutil -extract"]
    notarised += ["xcrun stapler", "xcrun stapler", "spctl --assess"]
    end = [f"dsymutil build/release/{program}" for program in ("Korvane", "login_program/Korvane")]
    end += ["shasum -a", "git describe", "wx-config --version"]
    done, calls, made = release(*IDENTITIES)
    assert done.returncode == 0, done.stderr
    assert calls == ["uname", "security find-identity", *begin, "codesign --display", *packed, *notarised, *end], calls
    assert made == {"Korvane-2.5.pkg", "Korvane-2.5.sha256", "Korvane.dSYM", "login_program.dSYM"}, made
    done, calls, made = release("--ad-hoc")
    assert done.returncode == 0 and calls == ["uname", *begin, *packed, *end], (done.stderr, calls)
    assert "Korvane-2.5-ad-hoc.pkg" in made, made

    expand = TOOLS["pkgutil --expand-full"]
    refusals = [
        ("into the keychain", "security find-identity", "echo '0 valid identities found'"),
        ("Build the companion for arm64", "lipo -archs", "echo x86_64"),
        ("Sign the companion.", "codesign --verify", "echo not signed at all; exit 1"),
        ("hardened runtime", "codesign --display", f"echo 'flags=0x0(none) Timestamp=today TeamIdentifier={TEAM}'"),
        ("with a timestamp", "codesign --display", f"echo '(runtime) TeamIdentifier={TEAM}'"),
        ("with the same team", "codesign --display", "echo '(runtime) Timestamp=today TeamIdentifier=OTHER12345'"),
        ("the tests have found", "ctest --test-dir", "exit 8"),
        ("the address of vendor.example", "cmake --install", TOOLS["cmake --install"].replace("vendor.", "service.")),
        ("CPack.distribution", "pkgutil --expand-full", expand + "; sed -i /domains/d build/release/expanded/Distr*"),
        ("components.plist", "pkgutil --expand-full", expand + f"; echo '<relocate>' >{PACKAGE}/PackageInfo"),
        ("would not run it", "pkgutil --expand-full", expand + f"; chmod -x {PACKAGE}/Scripts/postinstall"),
        ("what was signed", "codesign --verify", "case $* in *Payload*) exit 1 ;; esac"),
        ("installer identity", "pkgutil --check-signature", "exit 1"),
        ("store-credentials vendor", "xcrun notarytool", "exit 69"),
        ("the log\nrelease: Apple has not accepted", "plutil -extract", "[ $2 = id ] && echo 7 || echo Invalid"),
        ("the ticket may", "xcrun stapler", "[ $2 = staple ]"),
        ("Gatekeeper refuses", "spctl --assess", "exit 3"),
    ]
    ends = [(reason, release(*IDENTITIES, **{call: does})) for reason, call, does in refusals]
    ends.append(("of two teams", release(*IDENTITIES, "--installer", apple.OTHER_INSTALLER)))
    for reason, (done, _, made) in ends:
        assert done.returncode == 1 and reason in done.stderr and not made, (reason, done, made)


def test_installed_folder_can_be_sealed():
    """Code alone where code belongs, and links that lead nowhere else; signed from the inside out."""
    stage = pathlib.Path("/tmp/stage")
    shutil.copytree("/build/stage", stage, symlinks=True)
    contents = stage / "Korvane.app/Contents"
    libraries = sorted((contents / "Frameworks").iterdir())
    data = {"Korvane.bmp", "Korvane.version", "offline.png"}
    assert {*os.listdir(stage)} == {"KR.app", "Korvane", "Korvane.app"} and {*os.listdir(contents / "MacOS")} == {
        "Korvane",
        *data,
    }
    assert {*os.listdir(contents / "Resources")} == {"Korvane.icns", *data}
    assert all((contents / "MacOS" / name).readlink() == pathlib.Path("../Resources", name) for name in data)
    assert all(library.resolve() in libraries and "libwx_" in library.name for library in libraries)
    for program in (stage / "Korvane", contents / "MacOS/Korvane", stage / "KR.app/Contents/MacOS/KR"):
        assert os.access(program, os.X_OK), program
    assert (contents / "MacOS/Korvane.version").read_text() == "2.5\n"

    text = (contents / "Info.plist").read_bytes()
    properties = plistlib.loads(text)
    assert properties["LSUIElement"] is properties["LSAppNapIsDisabled"] is True, properties
    assert properties["CFBundleIdentifier"] == "com.mervix.korvane" and properties["LSMinimumSystemVersion"] == "26.0"
    assert properties["CFBundleVersion"] == properties["CFBundleShortVersionString"] == "2.5"
    assert b"CFBundleExecutable</key>\n  <string>Korvane<" in text  # CMake's fixup_bundle reads lines
    components = plistlib.loads(pathlib.Path("/build/packaging/components.plist").read_bytes())
    assert [bundle["RootRelativeBundlePath"][13:] for bundle in components] == ["Korvane.app", "KR.app"], components
    assert not any(bundle["BundleIsRelocatable"] or bundle["BundleIsVersionChecked"] for bundle in components)

    def sign(identity, **changes):
        command = f"/usr/bin/cmake -D FOLDER={stage} -D 'IDENTITY={identity}' -P /source/packaging/sign.cmake"
        status = subprocess.run(["sh", "-c", command], env=apple.install(changes)).returncode
        return status, [call.replace(f"{stage}/", "").removeprefix("codesign ") for call in tools.calls()]

    seal = f"--force --sign {APPLICATION} --options runtime --timestamp"
    expected = [f"{seal} {library.relative_to(stage)}" for library in libraries if not library.is_symlink()]
    expected += [f"{seal} --identifier com.mervix.korvane.log-in Korvane", f"{seal} Korvane.app"]
    expected += [f"--verify --strict --verbose=2 {code}" for code in ("Korvane", "Korvane.app")]
    assert sign(APPLICATION) == (0, expected), sign(APPLICATION)
    status, calls = sign("-", **{"codesign --verify": "exit 1"})
    assert status and "runtime" not in " ".join(calls), calls


def test_mac_needs_wxwidgets_3_3():
    command = "OBJCXX=/usr/bin/g++ cmake -B /tmp/mac /source -DCMAKE_SYSTEM_NAME=Darwin -DCMAKE_INSTALL_NAME_TOOL=true"
    done = subprocess.run(command, shell=True, stderr=subprocess.PIPE)
    assert b'least "3.3"' in done.stderr, done


def test_check_bundle_starts_and_ends_the_launcher():
    # The process has checked in when it is asked for the second time.
    type_of = """[ -e /tmp/asked ] && type='"BackgroundOnly"' || type='[ NULL ]'; >/tmp/asked"""
    late = type_of + '; echo "pid = $(pgrep -x Korvane) !signalled type=$type flavor=3"'
    table = [
        ("", {"lsappinfo list": late}),
        ("shows in the Dock", {"lsappinfo list": TOOLS["lsappinfo list"].replace("UIElement", "Foreground")}),
        ("the seal of", {"codesign --verify": "exit 1"}),
    ]
    with Machine() as machine:
        machine.offer("2.5")
        for reason, changes in table:
            environment = machine.environment | {"PATH": apple.install(changes)["PATH"]}
            command = ["/source/script/check-bundle", machine.folder]
            done = subprocess.run(command, env=environment, capture_output=True, text=True, **AS_ALICE)
            assert done.returncode == bool(reason) and reason in done.stderr and not machine.flag.exists(), done


def test_check_service_tells_what_the_launcher_makes_of_it():
    program = bytes.fromhex("cffaedfe0c000001") + b"..."
    chunk = b"%x\r\n%b\r\n0\r\n\r\n" % (len(program), program)
    coded = service.fault(lambda to, _, **headers: (to.head(200, None, **headers), to.wfile.write(chunk)))
    table = [
        ([], {}),
        (["expired"] * 3, {"certificate": "expired"}),
        (["status 500"] * 2, {"faults": {"version": service.status(500)}}),
        (["no redirect", "read 0.0"] * 2, {"faults": {"version": service.redirect()}}),
        (["no redirect"], {"faults": {"download": service.redirect()}}),
        (["neither a length nor chunks"], {"faults": {"download": service.no_length()}}),
        ([], {"faults": {"download": coded(**{"Transfer-Encoding": "chunked", "Content-Encoding": "identity"})}}),
        (["g:gzip"], {"faults": {"download": coded(**{"Transfer-Encoding": "chunked", "Content-Encoding": "gzip"})}}),
        (["g:identity,chunked"], {"faults": {"download": coded(**{"Transfer-Encoding": "identity, chunked"})}}),
        (["no executable for arm64"], {"payload": b"#!/bin/sh"}),
        (["not signed;"], {"codesign": "echo not signed at all; exit 1"}),
        (["signed ad hoc"], {"codesign": "echo TeamIdentifier=not set"}),
        (["but KR.app by none"], {"codesign": f"case $* in *KR.app) exit 1 ;; esac; echo TeamIdentifier={TEAM}"}),
    ]
    answers = {b"404 page not found": "4.0", b"2.6.0.0": "0.0", b"x7": "0.0", b"77\n": "7.0", b'"2\x006.0"': "2.0"}
    table += [([f"read {read}:"] * 2, {"faults": {"version": service.body(text)}}) for text, read in answers.items()]
    table.append(([], {"faults": {"version": service.body(b"\xff2.6.0.0\xff\r\n")}}))
    command = ["/source/script/check-service", "service.korvane.example", "--companion", "KR.app"]
    with Machine() as machine:
        machine.offer("2.6.0.0")
        for expected, changes in table:
            environment = apple.install({"codesign --display": changes.pop("codesign", f"echo TeamIdentifier={TEAM}")})
            machine.service.change(**{"certificate": "good", "faults": {}, "payload": program} | changes)
            done = subprocess.run(command, env=environment, capture_output=True, text=True)
            wrong = [line for line in done.stdout.splitlines() if line.startswith("WRONG")]
            assert done.returncode == bool(wrong) and len(wrong) == len(expected), (changes, done)
            assert all(text in line for text, line in zip(expected, wrong)), (expected, wrong)
        assert all("User-Agent" not in request.headers for request in machine.service.requests)


TESTS = {name[5:]: test for name, test in globals().items() if name.startswith("test_")}
