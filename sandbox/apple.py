"""Stand-ins for what only a Mac has: Apple's tools, and a build with them, for what the vendor's engineers run.

Each call does what TOOLS says, a shell command; a call that is not listed fails.
"""

import os

import tools

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
    "cmake --install": f"""
        mkdir -p {BUNDLE}/MacOS {BUNDLE}/Frameworks
        echo https://vendor.example/ >{BUNDLE}/MacOS/Korvane""",
    "cpack --config": "touch build/release/Korvane-2.5-Darwin-arm64.pkg",
    "pkgutil --expand-full": f"""
        mkdir -p {PACKAGE}/Payload/Applications {PACKAGE}/Scripts
        cp packaging/p*install {PACKAGE}/Scripts
        echo '<relocate/>' >{PACKAGE}/PackageInfo
        cp packaging/*.dist.in {PACKAGE}/../Distribution""",
    "productsign --sign": 'cp "$3" "$4"',
    "pkgutil --check-signature": "",
    "xcrun notarytool": "[ $2 = submit ] || echo the log",
    "plutil -lint": "",
    "lsappinfo list": 'echo "    pid = $(pgrep -x Korvane) token=[7] type=\\"UIElement\\" flavor=3"',
    "launchctl print": "",
    "launchctl asuser": 'shift 2; exec "$@"',
    "sudo -u": 'user=$2; shift 2; exec setpriv --reuid "$user" --regid 1000 --clear-groups env USER="$user" "$@"',
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
    tools.install()
    cases = "".join(f'"{call}"*) {does} ;;\n' for call, does in (TOOLS | changes).items())
    for name in {call.split()[0] for call in TOOLS}:
        tools.replace(name, f'case "{name} $1" in\n{cases}*) echo unknown; exit 9 ;;\nesac')
    return os.environ | {"PATH": f"{tools.PATH}:{os.environ['PATH']}"}
