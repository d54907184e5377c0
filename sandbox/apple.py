"""Stand-ins for what only a Mac has: Apple's tools, and a build with them. For script/release, which runs nothing else.

Each call is noted in CALLS, and does what TOOLS says, a shell command; a call that is not listed fails.
"""
import os
import pathlib

FOLDER = pathlib.Path("/tmp/apple")
CALLS = pathlib.Path("/tmp/called")
TEAM = "ABCDE12345"
APPLICATION = f"Developer ID Application: Mervix ({TEAM})"
INSTALLER = f"Developer ID Installer: Mervix ({TEAM})"
OTHER_INSTALLER = "Developer ID Installer: Other (OTHER12345)"
PACKAGE = "build/release/expanded/launcher.pkg"
BUNDLE = "build/release/stage/Korvane.app/Contents"
TOOLS = {
    "uname": "echo Darwin",
    "security find-identity": f"printf '  1) 0F \"%s\"\\n' '{APPLICATION}' '{INSTALLER}' '{OTHER_INSTALLER}'",
    "lipo -archs": "echo arm64",
    "codesign --verify": "",
    "codesign --force": "",
    "codesign --display": f"echo 'flags=0x10000(runtime) Timestamp=today TeamIdentifier={TEAM}'",
    "cmake --preset": "mkdir -p build/release/login_program",
    "cmake --build": "",
    "ctest --test-dir": "",
    "cmake --install": f"mkdir -p {BUNDLE}/MacOS {BUNDLE}/Frameworks; "
    f"echo https://vendor.example/ >{BUNDLE}/MacOS/Korvane",
    "cpack --config": "touch build/release/Korvane-2.5-Darwin-arm64.pkg",
    "pkgutil --expand-full": f"mkdir -p {PACKAGE}/Payload/Applications; echo '<relocate/>' >{PACKAGE}/PackageInfo; "
    f"cp packaging/*.dist.in {PACKAGE}/../Distribution",
    "productsign --sign": 'cp "$3" "$4"',
    "pkgutil --check-signature": "",
    "xcrun notarytool": "[ $2 = submit ] || echo the log",
    "plutil -extract": "[ $2 = id ] && echo 7 || echo Accepted",
    "xcrun stapler": "",
    "spctl --assess": "",
    "dsymutil": "mkdir $3",
    "shasum -a": 'sha256sum "$3"',
    "git describe": "echo 123abc",
    "wx-config --version": "echo 3.3.3",
}


def install(changes):
    """Installs the tools, some of them changed; returns the environment that finds them before all others."""
    body = f'#!/bin/bash\necho "${{0##*/}} $*" >>{CALLS}\ncase "${{0##*/}} $1" in\n'
    body += "".join(f'"{call}"*) {does} ;;\n' for call, does in (TOOLS | changes).items())
    FOLDER.mkdir(exist_ok=True)
    for name in {call.split()[0] for call in TOOLS}:
        (FOLDER / name).write_text(body + "*) echo unknown; exit 9 ;;\nesac\n")
        (FOLDER / name).chmod(0o755)
    CALLS.write_text("")
    return os.environ | {"PATH": f"{FOLDER}:{os.environ['PATH']}"}


def calls():
    """The calls so far, with their arguments, in order."""
    return CALLS.read_text().splitlines()
