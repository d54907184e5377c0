// pgrep and pkill, as macOS's commands of those names pick processes: their own ancestors are left out.
//
// Hands all to the system's tool of the same name, which leaves them out only when it is told to. Exit status: that
// tool's; 3, its own "fatal error", with one line on standard error, when it cannot be started.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>

int main(int argc, char **argv) {
    char tool[] = "/usr/bin/" TOOL;
    char leaveOutAncestors[] = "--ignore-ancestors";
    // pgrep and pkill are one program, which goes by argv[0].
    std::vector<char *> arguments(argv, argv + argc);
    arguments.front() = tool;
    arguments.insert(arguments.begin() + 1, leaveOutAncestors);
    arguments.push_back(nullptr);
    execv(tool, arguments.data());
    std::fprintf(stderr, TOOL ": cannot start %s: %s\n", tool, std::strerror(errno));
    return 3;
}
