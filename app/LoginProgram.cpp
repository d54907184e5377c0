// The log-in program: "Korvane" in the install folder, which launchd starts at log-in.
//
// It becomes the launcher, Korvane.app/Contents/MacOS/Korvane in the folder that it really lies in, with its own
// arguments and environment; the process id stays, so launchd keeps track of it. A link in its place would not do:
// macOS goes by the unresolved path of a program, and one started through a link outside its bundle has none. Nothing
// in Info.plist would hold then: a Dock icon would appear and the user's focus be taken. Nor would a shell script do,
// which macOS would name "sh" among the user's background items.
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

constexpr int kCannotStart = 127; // what a shell says of a command that it cannot find (sh(1))

// Returns the path by which this program was started, which may lead through links. A first call with no buffer tells
// the size needed (dyld(3)).
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
