"""What the vendor's engineers run: making a release, checking a service, checking an installed folder.

    shipping_test.py NAME
"""
import os
import pathlib
import shutil
import subprocess
import sys

import service
from machine import AS_ALICE, HOME, Machine

PROJECT = pathlib.Path("/tmp/a folder/korvane")
TEAM = "ABCDE12345"
APPLICATION, INSTALLER = (f"Developer ID {what}: Mervix ({TEAM})" for what in ("Application", "Installer"))
IDENTITIES = f"--application '{APPLICATION}' --installer '{INSTALLER}' --notary-profile vendor"
PAYLOAD = "build/release/expanded/launcher.pkg/Payload/Applications"
BINARY = "build/release/stage/Korvane.app/Contents/MacOS"
# What each of Apple's tools, and of those that only a Mac can run, does when all is well.
TOOLS = {
    "uname": "echo Darwin",
    "security find-identity": f"printf '  1) 0F \"%s\"\\n' '{APPLICATION}' '{INSTALLER}'",
    "lipo -archs": "echo arm64",
    "codesign --verify": "",
    "codesign --display": f"echo 'flags=0x10000(runtime) Timestamp=today TeamIdentifier={TEAM}'",
    "cmake --preset": "mkdir -p build/release/login_program",
    "cmake --build": "",
    "ctest --test-dir": "",
    "cmake --install": f"mkdir -p {BINARY} {BINARY}/../Frameworks; echo https://vendor.example/ >{BINARY}/Korvane",
    "cpack --config": "touch build/release/Korvane-2.5-Darwin-arm64.pkg",
    "pkgutil --expand-full": f"mkdir -p {PAYLOAD} && cp packaging/*.dist.in build/release/expanded/Distribution; "
    f"echo '<relocate/>' >{PAYLOAD}/../../PackageInfo",
    "productsign --sign": 'cp "$3" "$4"',
    "pkgutil --check-signature": "",
    "xcrun notarytool": "[ $2 = submit ] || echo the log",
    "plutil -extract": "[ $2 = id ] && echo 7 || echo Accepted",
    "xcrun stapler": "",
    "spctl --assess": "",
    "dsymutil": "mkdir $3",
    "git describe": "echo 123abc",
    "wx-config --version": "echo 3.3.3",
}


def release(arguments, **changes):
    """Runs script/release with these tools, some of them changed, and returns what it did and the calls it made."""
    shutil.rmtree(PROJECT / "build", ignore_errors=True)
    body = 'echo "${0##*/} $1" >>/tmp/called\ncase "${0##*/} $1" in\n'
    for call, does in (TOOLS | changes).items():
        body += f'"{call}"*) {does} ;;\n'
        tool = pathlib.Path("/tmp/apple") / call.split()[0]
        tool.parent.mkdir(exist_ok=True)
        tool.unlink(missing_ok=True)
        tool.symlink_to("all")
    (tool.parent / "all").write_text("#!/bin/bash\n" + body + "*) echo unknown; exit 9 ;;\nesac\n")
    (tool.parent / "all").chmod(0o755)
    pathlib.Path("/tmp/called").write_text("")
    environment = os.environ | {"PATH": f"/tmp/apple:{os.environ['PATH']}"}
    command = f"'{PROJECT}/script/release' --host vendor.example --companion /source/sandbox/KR.app {arguments}"
    done = subprocess.run(["bash", "-c", command], env=environment, capture_output=True, text=True)
    return done, pathlib.Path("/tmp/called").read_text().splitlines()


def test_release_is_made_in_order_or_not_at_all():
    (PROJECT / "script").mkdir(parents=True)
    shutil.copy("/source/script/release", PROJECT / "script")
    shutil.copy("/source/CMakeLists.txt", PROJECT)
    shutil.copytree("/source/packaging", PROJECT / "packaging")

    done, calls = release(IDENTITIES)
    assert done.returncode == 0, done.stderr
    seals = ["codesign --verify"] * 3
    first = ["uname ", "security find-identity", "lipo -archs", "codesign --verify", "codesign --display"]
    built = ["cmake --preset", "cmake --build", "ctest --test-dir", "cmake --install", "cpack --config"]
    packed = [*built, "pkgutil --expand-full", *seals]
    notarised = ["xcrun notarytool", "plutil -extract", "xcrun stapler", "xcrun stapler", "spctl --assess"]
    last = [f"dsymutil build/release/{program}" for program in ("Korvane", "login_program/Korvane")]
    last += ["git describe", "wx-config --version"]
    signed = ["productsign --sign", "pkgutil --check-signature"]
    assert calls == first + packed + signed + notarised + last, calls
    made = {path.name for path in (PROJECT / "build/Korvane-2.5").iterdir()}
    assert made == {"Korvane-2.5.pkg", "Korvane-2.5.sha256", "Korvane.dSYM", "login_program.dSYM"}, made

    done, calls = release("--ad-hoc")
    assert done.returncode == 0 and (PROJECT / "build/Korvane-2.5-ad-hoc/Korvane-2.5-ad-hoc.pkg").exists(), done.stderr
    assert calls == ["uname ", *first[2:4], *packed, *last], calls

    in_package = "case $* in *Payload*) echo broken seal; exit 1;; esac"
    other_team = IDENTITIES.replace(f"{TEAM})' --notary", "OTHER12345)' --notary")
    both = f"echo '\"{APPLICATION}\" \"{INSTALLER.replace(TEAM, 'OTHER12345')}\"'"
    here_only = TOOLS["pkgutil --expand-full"] + "; sed -i s/CurrentUserHome/X/i build/release/expanded/Distribution"
    moving = TOOLS["pkgutil --expand-full"] + f"; echo '<relocate><bundle/></relocate>' >{PAYLOAD}/../../PackageInfo"
    refusals = [
        ("into the keychain", "security find-identity", "echo '0 valid identities found'"),
        ("of two teams", "security find-identity", both),
        ("Build the companion for arm64", "lipo -archs", "echo x86_64"),
        ("Sign the companion.", "codesign --verify", "echo not signed at all; exit 1"),
        ("hardened runtime", "codesign --display", f"echo 'flags=0x0(none) Timestamp=today TeamIdentifier={TEAM}'"),
        ("with a timestamp", "codesign --display", f"echo '(runtime) TeamIdentifier={TEAM}'"),
        ("with the same team", "codesign --display", "echo '(runtime) Timestamp=today TeamIdentifier=OTHER12345'"),
        ("the tests have found", "ctest --test-dir", "exit 8"),
        ("the address of vendor.example", "cmake --install", TOOLS["cmake --install"].replace("vendor.e", "service.e")),
        ("CPack.distribution", "pkgutil --expand-full", here_only),
        ("components.plist", "pkgutil --expand-full", moving),
        ("what was signed", "codesign --verify", in_package),
        ("installer identity", "pkgutil --check-signature", "exit 1"),
        ("store-credentials vendor", "xcrun notarytool", "exit 69"),
        ("Apple has not accepted", "plutil -extract", "[ $2 = id ] && echo 7 || echo Invalid"),
        ("the ticket may", "xcrun stapler", "[ $2 = staple ]"),
        ("Gatekeeper refuses", "spctl --assess", "exit 3"),
    ]
    for reason, call, does in refusals:
        done, calls = release(other_team if does == both else IDENTITIES, **{call: does})
        assert done.returncode == 1 and reason in done.stderr, (reason, done.returncode, done.stderr)
        assert "Invalid" not in does or "the log" in done.stderr, done.stderr
        assert not list(PROJECT.glob("build/Korvane-*")), reason


def test_check_service_tells_what_the_launcher_makes_of_it():
    program = bytes.fromhex("cffaedfe0c000001") + b"..."
    table = [
        ([], {}),
        (["expired"] * 3, {"certificate": "expired"}),
        (["status 500"] * 2, {"faults": {"version": service.status(500)}}),
        (["no redirect", "read 0.0"] * 2, {"faults": {"version": service.redirect()}}),
        (["no redirect"], {"faults": {"download": service.redirect()}}),
        (["reads 04"] * 2, {"faults": {"version": service.body(b"404 page not found")}}),
        (["read 0.0"] * 2, {"faults": {"version": service.body(b"2.6.0.0")}}),
        (["neither a length nor chunks"], {"faults": {"download": service.no_length()}}),
        (["no executable for arm64"], {"payload": b"#!/bin/sh"}),
    ]
    with Machine() as machine:
        machine.offer("2.6.0.0")
        for expected, changes in table:
            machine.service.change(**{"certificate": "good", "faults": {}, "payload": program} | changes)
            command = ["/source/script/check-service", "service.korvane.example"]
            done = subprocess.run(command, capture_output=True, text=True)
            wrong = [line for line in done.stdout.splitlines() if line.startswith("WRONG")]
            assert done.returncode == bool(wrong) and len(wrong) == len(expected), (changes, done)
            assert all(text in line for text, line in zip(expected, wrong)), (expected, wrong)
        assert all("User-Agent" not in request.headers for request in machine.service.requests)


def test_check_bundle_starts_and_ends_the_launcher():
    kinds = [("!signalled", "BackgroundOnly", 0), ("token=[7]", "Foreground", 1)]
    lsappinfo = pathlib.Path("/tmp/apple/lsappinfo")
    lsappinfo.parent.mkdir()
    with Machine() as machine:
        machine.offer("2.5")
        environment = machine.environment | {"PATH": f"{lsappinfo.parent}:{os.environ['PATH']}"}
        for state, kind, status in kinds:
            # The process has checked in when it is asked for the second time.
            asked = HOME / kind
            lsappinfo.write_text(
                f"#!/bin/sh\n[ -e {asked} ] && type='\"{kind}\"' || type='[ NULL ]'\n>{asked}\n"
                f'echo "    pid = $(pgrep -x Korvane) {state} type=$type flavor=3 fileType=\\"APPL\\""\n'
            )
            lsappinfo.chmod(0o755)
            command = ["/source/script/check-bundle", machine.folder]
            done = subprocess.run(command, env=environment, capture_output=True, text=True, **AS_ALICE)
            assert done.returncode == status, done
            assert not machine.flag.exists(), done


if __name__ == "__main__":
    globals()["test_" + sys.argv[1]]()
