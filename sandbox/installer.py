"""Installer, as the package's scripts see it.

The service offers a companion newer than every marker. Another user has a launcher and a companion
too.
"""

import shutil
import subprocess
import time

import apple
from machine import AS_ALICE, HOME, UID, Machine, companion_program, own, processes

HOUSE = HOME / 'KR\'s "new" $HOME'  # alice's home
AGENT = HOUSE / "Library/LaunchAgents/com.mervix.korvane.plist"
BOB = 1001


def running(uid=UID):
    """The names of a user's companions and launchers that run."""
    return [name for name in ("KR", "Korvane") for _ in processes(name, uid)]


class Mac(Machine):
    """Use open() for what the scripts end, so that it is nobody's child here, as on a Mac: pgrep
    would see a zombie.
    """

    def __init__(self):
        super().__init__(HOUSE / "Applications")

    def __enter__(self):
        super().__enter__()
        self.environment |= {"HOME": str(HOUSE), "PATH": apple.install({})["PATH"]}
        self.offer("9.0", launcher="2.0")
        for name in ("KR", "Korvane"):
            shutil.copy("/usr/bin/sleep", f"/tmp/{name}")
            self.start([f"/tmp/{name}", "999"], identity={"user": BOB})
        return self

    def run(self, script, home=HOUSE, identity=AS_ALICE, folder="/source/packaging", **environment):
        """Runs one of the scripts, which must end with 0, and returns what it prints."""
        command = [f"{folder}/{script}", "/Korvane.pkg", home, home, "/"]
        environment = self.environment | environment
        done = subprocess.run(
            command, env=environment, stdout=subprocess.PIPE, text=True, **identity
        )
        assert done.returncode == 0, done
        return done.stdout

    def copy(self, version):
        """Puts launcher and companion of another version in the place of those installed, one file
        after the other.
        """

        def slowly(*paths):
            time.sleep(0.2)
            shutil.copy2(*paths)

        shutil.rmtree(self.folder)
        shutil.copytree("/build/stage", self.folder, symlinks=True, copy_function=slowly)
        self.companion.write_bytes(companion_program(version))
        self.marker.write_text(f"{version}\n")
        own(self.folder)
