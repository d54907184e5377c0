"""From a plain configuration to the archive, as one who packages goes about it; nothing of it is started here.

    packaging_test.py SOURCE WORK

Builds SOURCE below the folder WORK with the compilers that CMake picks, a toolkit in a prefix of its own and a
companion; installs below DESTDIR, signs with a stand-in for codesign, and packs.
"""
import os
import pathlib
import plistlib
import shutil
import subprocess
import sys
import tarfile

SOURCE, WORK = map(pathlib.Path, sys.argv[1:])
PREFIX, BUILD, BELOW = WORK / "toolkit", WORK / "build", WORK / "below"
TARGET = pathlib.Path("/opt/korvane packaging test")
INSTALLED = BELOW / TARGET.relative_to("/")
VERSION = "2.5"


def run(*command, **environment):
    subprocess.run(command, env=os.environ | environment, check=True)


def script(path, body):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"#!/bin/sh\n{body}\n")
    path.chmod(0o755)


def lay_toolkit():
    """A toolkit that can be told from the system's: each of its libraries is one byte longer."""
    system = next(pathlib.Path("/usr/lib").glob("*/libwx_baseu-*.so")).parent
    libraries = PREFIX / system.relative_to("/usr")
    libraries.mkdir(parents=True)
    (libraries / "wx").symlink_to(system / "wx")
    (PREFIX / "include").symlink_to("/usr/include")
    for library in system.glob("libwx_*"):
        shutil.copy(library, libraries, follow_symlinks=False)
        if not library.is_symlink():
            with open(libraries / library.name, "ab") as file:
                file.write(b"\0")
    script(PREFIX / "bin/wx-config", f'exec wx-config --prefix={PREFIX} --exec-prefix={PREFIX} "$@"')
    return libraries


def check_layout(folder):
    """What a signature can seal: code alone where code belongs, and links that lead nowhere else."""
    assert sorted(path.name for path in folder.iterdir()) == ["KR.app", "Korvane", "Korvane.app"]
    contents = (folder / "Korvane.app/Contents").resolve()
    for path in contents.rglob("*"):
        kind = path.relative_to(contents).parts[0]
        if path.is_symlink():
            assert not path.readlink().is_absolute() and path.resolve(strict=True).is_relative_to(contents), path
        elif path.is_file() and kind in ("MacOS", "Frameworks"):
            assert path.read_bytes().startswith(b"\x7fELF"), path
            assert ".so" in path.name if kind == "Frameworks" else os.access(path, os.X_OK), path
    beside = {path.name: path.readlink() for path in (contents / "MacOS").iterdir() if path.is_symlink()}
    assert set(beside) == {"Korvane.bmp", "offline.png", "Korvane.version"}
    properties = plistlib.loads((contents / "Info.plist").read_bytes())
    assert properties["CFBundleIdentifier"] == "com.mervix.korvane" and properties["CFBundleDevelopmentRegion"] == "en"
    assert properties["CFBundleShortVersionString"] == VERSION and "Mervix" in properties["NSHumanReadableCopyright"]
    assert (
        properties["LSUIElement"] is properties["LSAppNapIsDisabled"] is properties["NSHighResolutionCapable"] is True
    )
    assert properties["LSMinimumSystemVersion"] == "26.0"
    assert (contents / "Resources" / properties["CFBundleIconFile"]).with_suffix(".icns").is_file()
    assert (contents / "MacOS/Korvane.version").read_text() == f"{VERSION}\n"


def signatures(identity, status=0):
    """The calls of codesign, for a tool that ends with this status when asked to verify."""
    script(WORK / "tools/codesign", f'echo "$@" >>{WORK}/calls; case "$1" in --verify) exit {status};; esac')
    (WORK / "calls").write_text("")
    command = ["cmake", f"-DFOLDER={INSTALLED}", f"-DIDENTITY={identity}", "-P", SOURCE / "packaging/sign.cmake"]
    signed = subprocess.run(command, env={"PATH": f"{WORK}/tools:{os.environ['PATH']}"}, capture_output=True)
    assert (signed.returncode == 0) == (status == 0), signed
    return (WORK / "calls").read_text().replace(str(INSTALLED), "").splitlines()


def main():
    for made in [*WORK.glob("Korvane-*"), PREFIX, BELOW, WORK / "unpacked"]:
        subprocess.run(["rm", "-rf", made], check=True)
    libraries = lay_toolkit()
    options = {"wxWidgets_CONFIG_EXECUTABLE": PREFIX / "bin/wx-config", "BUILD_TESTING": "OFF"}
    options["KORVANE_COMPANION"] = f"{SOURCE}/sandbox/KR.app/"
    run(
        "cmake",
        "--fresh",
        "-S",
        SOURCE,
        "-B",
        BUILD,
        "-G",
        "Ninja",
        *(f"-D{name}={value}" for name, value in options.items()),
    )
    run("cmake", "--build", BUILD)
    run("cmake", "--install", BUILD, "--prefix", TARGET, DESTDIR=str(BELOW))
    check_layout(INSTALLED)
    assert not TARGET.exists()
    frameworks = list((INSTALLED / "Korvane.app/Contents/Frameworks").iterdir())
    assert frameworks and all(path.read_bytes() == (libraries / path.name).read_bytes() for path in frameworks)

    calls = signatures("Developer ID")
    code = [call.rsplit(maxsplit=1)[-1] for call in calls]
    assert sorted(code[: len(frameworks)]) == sorted(
        f"/Korvane.app/Contents/Frameworks/{path.name}" for path in frameworks
    )
    assert code[len(frameworks) :] == ["/Korvane", "/Korvane.app"] * 2
    assert all("--options runtime --timestamp" in call and "--deep" not in call for call in calls[:-2]), calls
    assert all(call.startswith("--verify --strict --verbose=2") for call in calls[-2:]), calls
    assert "runtime" not in " ".join(signatures("-"))
    signatures("-", status=1)

    run("cpack", "--config", f"{BUILD}/CPackConfig.cmake", "-B", WORK)
    (archive,) = WORK.glob("Korvane-*.tar.gz")
    with tarfile.open(archive) as content:
        content.extractall(WORK / "unpacked")
    check_layout(WORK / "unpacked" / archive.name.removesuffix(".tar.gz"))


if __name__ == "__main__":
    main()
