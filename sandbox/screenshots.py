"""Shows the login window on a desktop, uses it with mouse and keyboard, and writes a picture of each state to /out."""
import subprocess

import desktop
import machine

STATES = [
    ("fresh", []),
    ("no-user-name", ["LogIn"]),
    ("no-password", ["alice", "LogIn"]),
    ("filled", ["alice\tsecret", "LogIn"]),
]
# Where to click, from the window's top left corner: the banner is 400 wide, the form 20 beside it.
FIELD = (500, 82)
LOG_IN = (476, 212)


def main():
    for name, actions in STATES:
        with desktop.desktop() as environment, machine.Processes() as processes:

            def tool(*arguments):
                return subprocess.run(arguments, env=environment, check=True, capture_output=True, text=True).stdout

            processes.start([desktop.install("/build/login_window")], env=environment)
            window = tool("xdotool", "search", "--sync", "--onlyvisible", "--class", "login_window").split()[0]
            tool("xdotool", "windowactivate", "--sync", window)
            for action in actions:
                if action == "LogIn":
                    tool("xdotool", "mousemove", "--window", window, *map(str, LOG_IN), "click", "1")
                else:
                    tool("xdotool", "mousemove", "--window", window, *map(str, FIELD), "click", "1")
                    tool("xdotool", "type", action)
            tool("xdotool", "mousemove", "0", "0", "sleep", "0.5")
            tool("import", "-window", window, "-strip", f"/out/{name}.png")
            print(f"{name}.png", flush=True)


if __name__ == "__main__":
    main()
