"""Product sources hold no platform conditionals and include only what macOS has under that name, and nothing above."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).parents[1]
FOLDERS = ("app", "companion", "supervise", "platform", "ui")
# Besides the C++ library's and the toolkit's.
KNOWN = (
    "AppKit/AppKit.h CoreFoundation/CoreFoundation.h IOKit/IOKitLib.h curl/curl.h dispatch/dispatch.h fcntl.h "
    "mach-o/dyld.h sys/stat.h unistd.h"
).split()
# From the ground up: a file includes files of its own floor and of those below.
FLOORS = [
    "app/Globals platform/FirstLine platform/Platform platform/StagedFile platform/UniqueFd",
    "app/LoginProgram app/UserName companion/AppVersion companion/ServiceClient companion/ServiceHasNewer "
    "companion/ShellQuote supervise/CompanionProcess supervise/ManualExitFlag ui/KorvaneTrayIcon ui/LoginDialog",
    "companion/CompanionUpdate companion/LauncherCheck",
    "supervise/Supervision",
    "app/Korvane_Cross_launcher",
]


def floor(name):
    unit = name.rsplit(".", 1)[0]
    return next((number for number, units in enumerate(FLOORS) if unit in units.split()), None)


def problems(name, text):
    if floor(name) is None:
        yield "stands on no floor"
    if re.search(r"^\s*#\s*(if|ifdef|ifndef|elif|elifdef|elifndef)\b", text, re.M):
        yield "a conditional"
    for quote, included in re.findall(r"^\s*#\s*(?:include|import)\s*([<\"])([^>\"]+)", text, re.M):
        if quote == "<" and re.search("[./]", included) and included not in KNOWN and not included.startswith("wx/"):
            yield f"includes {included}, which macOS does not have"
        if quote == '"' and (floor(included) is None or floor(included) > floor(name)):
            yield f"includes {included}, which is on a floor above, or on none"


found = [
    f"{path.relative_to(ROOT)}: {problem}"
    for folder in FOLDERS
    for path in sorted((ROOT / folder).iterdir())
    if path.suffix in (".cpp", ".h", ".mm")
    for problem in problems(str(path.relative_to(ROOT)), path.read_text())
]
print("\n".join(found))
sys.exit(bool(found))
