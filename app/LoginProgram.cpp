// The log-in program: "Korvane" in the install folder, which launchd starts at log-in.
//
// It replaces itself with the launcher, Korvane.app/Contents/MacOS/Korvane in its own folder (links
// resolved), and passes on its arguments and environment. The process id stays the same, so launchd
// keeps track of it. A link would not do: macOS finds a program's bundle by its unresolved path,
// and a link is outside the bundle. Info.plist would not apply: the launcher would get a Dock icon
// and take the user's focus. A shell script would not do either: macOS would list it as "sh" among
// the user's background items.
//
// Exit status: 127, with one line on standard error, when the launcher cannot be started.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <mach-o/dyld.h>
#include <string>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr int kCannotStart = 127; // a shell's status for a command that it cannot find (sh(1))

// Returns the path that this program was started by, links unresolved. The first call, without a
// buffer, gets the size needed (dyld(3)).
std::string startedAs() {
    std::uint32_t size = 0;
    _NSGetExecutablePath(nullptr, &size);
    std::string path(size, '\0');
    _NSGetExecutablePath(path.data(), &size);
    return path.c_str();
}

int fail(const std::string &path, const std::error_code &reason) {
    std::fprintf(stderr, "Korvane: cannot start %s: %s\n", path.c_str(), reason.message().c_str());
    return kCannotStart;
}

} // namespace

int main(int argc, char **argv) {
    const std::string self = startedAs();
    std::error_code error;
    const fs::path folder = fs::canonical(self, error).parent_path();
    if (error)
        return fail(self, error);

    std::string launcher = folder / "Korvane.app/Contents/MacOS/Korvane";
    if (argc > 0)
        argv[0] = launcher.data(); // what ps(1) shows
    execv(launcher.c_str(), argv);
    return fail(launcher, {errno, std::generic_category()});
}
