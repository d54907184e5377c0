"""Stand-ins for Apple's tools, and for a build with them, to run on Linux what the vendor's
engineers run on a Mac.

A call of a tool runs the shell command that TOOLS holds for it; a call that is not listed fails.
"""

import os

import tools

TEAM = "ABCDE12345"
APPLICATION = f"Developer ID Application: Mervix ({TEAM})"
INSTALLER = f"Developer ID Installer: Mervix ({TEAM})"
OTHER_INSTALLER = "Developer ID Installer: Other (OTHER12345)"
PACKAGE = "build/release/expanded/launcher.pkg"
BUNDLE = "build/release/stage/Korvane.app/Contents"
KEG = "/tmp/homebrew/Cellar/libpng/1.6"
TOOLKIT = str(tools.PATH.parent)
TOOLS = {
    "uname": "echo Darwin",
    "security find-identity": "printf '  1) 0F \"%s\"\\n' "
    f"'{APPLICATION}' '{INSTALLER}' '{OTHER_INSTALLER}'",
    "lipo -archs": "echo arm64",
    "codesign --verify": "",
    "codesign --force": "",
    "codesign --display": "echo 'flags=0x12000(library-validation,runtime)';"
    f" echo Timestamp=now TeamIdentifier={TEAM}",
    "cmake --version": "echo cmake version 4.1",
    "cmake --preset": "mkdir -p build/release;"
    " echo '-- The CXX compiler identification is Clang 17'",
    "cmake --build": "cd build/release && mkdir login_program &&"
    " touch Korvane login_program/Korvane",
    "ctest --test-dir": "",
    "cmake --install": f"""
        mkdir -p {BUNDLE}/MacOS {KEG}/lib {TOOLKIT}/lib
        echo https://vendor.example/ >{BUNDLE}/MacOS/Korvane
        touch {KEG}/lib/libpng {KEG}/LICENSE {TOOLKIT}/lib/libwx
        ln -sfn {KEG} /tmp/homebrew/libpng
        echo "-- 1/6: *NOT* copying '{BUNDLE}/MacOS/Korvane'"
        echo "-- 2/6: copying '{TOOLKIT}/lib/libwx'"
        echo "-- 3/6: copying '/tmp/homebrew/libpng/lib/libpng'" """,
    "otool -l": "printf '    minos %s\\n' 26.2 26.2 14.0",
    "cpack --config": "touch build/release/Korvane-2.5-Darwin-arm64.pkg",
    "pkgutil --expand-full": f"""
        mkdir -p {PACKAGE}/Payload/Applications {PACKAGE}/Scripts
        cp packaging/p*install {PACKAGE}/Scripts
        echo '<relocate/>' >{PACKAGE}/PackageInfo
        cp packaging/*.dist.in {PACKAGE}/../Distribution""",
    "productsign --sign": 'cp "$3" "$4"',
    "pkgutil --check-signature": "",
    "xcrun notarytool submit": """
        case $* in
        *" --wait --timeout 2h") printf '  id: 7\\n  status: Accepted\\n' ;;
        *) exit 9 ;;
        esac""",
    "xcrun notarytool info": "",
    "xcrun notarytool log": "echo the log",
    "xcrun stapler staple": 'echo ticket >>"$3"',
    "xcrun stapler validate": 'grep ticket "$3"',
    "plutil -lint": "",
    "launchctl print": "",
    "launchctl asuser": 'shift 2; exec "$@"',
    "sudo -u": 'user=$2; shift 2; exec setpriv --reuid "$user" --regid 1000 --clear-groups'
    ' env USER="$user" "$@"',
    "lsappinfo list": 'echo "    pid = $(pgrep -x Korvane) token=[7]'
    ' type=\\"UIElement\\" flavor=3"',
    "spctl --assess": "",
    "dsymutil": '[ -e "$1" ] && mkdir "$3"',
    "sleep": '[ $1 = 30 ] || exec /usr/bin/sleep "$1"',
    "shasum -a": 'case $3 in *ad-hoc*) ;; *) grep ticket "$3" >&2 || exit 1 ;; esac;'
    ' sha256sum "$3"',
    "git describe": "echo 123abc",
    "wx-config --version": "echo 3.3.3",
}


def install(changes):
    """Installs the tools, some of them changed; returns the environment that finds them before all
    others.
    """
    tools.install()
    bodies = TOOLS | changes
    cases = "".join(f'"{call}"*) {does} ;;\n' for call, does in bodies.items())
    for name in {call.split()[0] for call in bodies}:
        tools.replace(name, f'case "{name} $*" in\n{cases}*) echo unknown; exit 9 ;;\nesac')
    return os.environ | {"PATH": f"{tools.PATH}:{os.environ['PATH']}"}
