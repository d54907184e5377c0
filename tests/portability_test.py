"""Product sources hold no platform conditionals and include nothing that macOS does not have under that name."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).parents[1]
FOLDERS = "app companion supervise platform ui"
# Besides the C++ library's, wxWidgets' and our own.
KNOWN = (
    "AppKit/AppKit.h CoreFoundation/CoreFoundation.h IOKit/IOKitLib.h curl/curl.h dispatch/dispatch.h fcntl.h "
    "mach-o/dyld.h sys/stat.h unistd.h"
)


def problems(text):
    yield from re.findall(r"^\s*#\s*(?:if|elif).*", text, re.M)
    for quote, included in re.findall(r"^\s*#\s*(?:include|import)\s*([<\"])([^>\"]+)", text, re.M):
        library = quote == "<" and not re.search("[./]", included)
        own = quote == '"' and included.split("/")[0] in FOLDERS.split()
        if not (library or own or included in KNOWN.split() or included.startswith("wx/")):
            yield included


files = [
    path for folder in FOLDERS.split() for path in (ROOT / folder).iterdir() if path.suffix in (".cpp", ".h", ".mm")
]
found = [f"{path}: {problem}" for path in files for problem in problems(path.read_text())]
sys.exit("\n".join(found) or 0)
