"""Shows the login window on a desktop, uses it with mouse and keyboard, and writes a picture of each state to /out."""
import subprocess

import desktop
import machine

# What is typed into the user name's field (a tab leads on to the password) before "LogIn" is clicked; None: no click.
STATES = {
    "fresh": None,
    "no-user-name": "",
    "no-password": "alice",
    "filled": "alice\tsecret",
}
# Where to click, from the window's top left corner: the banner is 400 wide, the form 20 beside it.
USER_NAME = ("500", "82")
LOG_IN = ("476", "212")


def show_and_use(typed, picture, environment, processes):
    """Shows the window, uses it, and takes its picture."""

    def tool(*arguments):
        return subprocess.run(arguments, env=environment, check=True, capture_output=True, text=True).stdout

    def click(place):
        tool("xdotool", "mousemove", "--window", window, *place, "click", "1")

    processes.start([desktop.install("/build/login_window")], env=environment)
    window = tool("xdotool", "search", "--sync", "--onlyvisible", "--class", "login_window").split()[0]
    tool("xdotool", "windowactivate", "--sync", window)
    if typed:
        click(USER_NAME)
        tool("xdotool", "type", typed)
    if typed is not None:
        click(LOG_IN)
    tool("xdotool", "mousemove", "0", "0", "sleep", "0.5")
    tool("import", "-window", window, "-strip", picture)


def main():
    for name, typed in STATES.items():
        with desktop.desktop() as environment, machine.Processes() as processes:
            show_and_use(typed, f"/out/{name}.png", environment, processes)
        print(f"{name}.png", flush=True)


if __name__ == "__main__":
    main()
