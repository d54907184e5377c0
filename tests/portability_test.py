"""Product sources hold no platform conditionals and include only what macOS has under that name."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).parents[1]
FOLDERS = ("app", "companion", "supervise", "platform", "ui")
STANDARD = set(
    "algorithm array cctype cerrno chrono climits cstddef cstdint cstdio cstdlib cstring filesystem fstream "
    "initializer_list limits memory optional string thread tuple utility".split()
)
SYSTEM = {
    "AppKit/AppKit.h",
    "CoreFoundation/CoreFoundation.h",
    "IOKit/IOKitLib.h",
    "curl/curl.h",
    "dispatch/dispatch.h",
    "fcntl.h",
    "mach-o/dyld.h",
    "sys/stat.h",
    "unistd.h",
}


def problems(text):
    if re.search(r"^\s*#\s*(if|ifdef|ifndef|elif|elifdef|elifndef)\b", text, re.M):
        yield "a conditional"
    for quote, name in re.findall(r"^\s*#\s*(?:include|import)\s*([<\"])([^>\"]+)", text, re.M):
        known = (ROOT / name).is_file() if quote == '"' else name in STANDARD | SYSTEM or name.startswith("wx/")
        if not known:
            yield f"includes {name}"


found = [
    f"{path.relative_to(ROOT)}: {problem}"
    for folder in FOLDERS
    for path in sorted((ROOT / folder).glob("*.*"))
    if path.is_file()
    for problem in problems(path.read_text())
]
print("\n".join(found))
sys.exit(bool(found))
