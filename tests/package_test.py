"""The package over what runs: afterwards the user has one launcher and one companion, the new ones."""

import os
import plistlib
import shutil

import tools
from installer import AGENT, BOB, HOUSE, Mac, running
from machine import AS_ROOT, HOME, UID, companion_program, end, until

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
    """A launcher hangs in an "open -n", which starts a companion once the launcher has ended. That companion ignores
    SIGTERM, and when it is killed another comes. Here no minute is waited for."""
    rest = "do /usr/bin/sleep 0.1; done >&2"
    hang = f"while [ ! -e /tmp/late ] && /usr/bin/pgrep -U 1000 -x Korvane; {rest}; >/tmp/late"
    come = f">/tmp/again; rm /tmp/deaf; open -n ~/*/KR.app; until [ -e /tmp/deaf ]; {rest}"
    with Mac() as mac:
        deaf = b"\nsignal.signal(signal.SIGTERM, signal.SIG_IGN)\nopen('/tmp/deaf', 'w')\nVERSION"
        mac.service.payload = companion_program("9.0").replace(b"\nVERSION", deaf)
        tools.replace("open", f'case "$*" in -n*KR.app) {hang} ;; esac; exec /source/compat/bin/open "$@"')
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
        install(mac, "2.7", KR + END, identity=AS_ROOT, folder="/root/packaging", HOME="/root", USER="root")


def test_package_in_a_new_account():
    with Mac() as mac:
        mac.offer("2.5")
        tools.replace("launchctl", "exit 113")
        (HOME / "link").symlink_to(HOUSE)
        mac.run("postinstall", HOME / "link")
        written = AGENT.read_bytes()
        AGENT.unlink()
        launcher = mac.launch(plistlib.loads(written)["ProgramArguments"][0])
        until(lambda: AGENT.exists() and AGENT.read_bytes() == written, "the launcher has written the same")
        end(launcher)
        tools.replace("launchctl", "")
        mac.run("postinstall", "/", USER="")
        mac.service.wait_for("Korvane_CAP", 2)
        for home in ("/root", "/nowhere", ""):
            for script in ("preinstall", "postinstall"):
                assert "nothing done" in mac.run(script, home, AS_ROOT, HOME="")
        assert running() == BOTH


TESTS = {name[5:]: test for name, test in globals().items() if name.startswith("test_")}
