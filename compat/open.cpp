// open -n BUNDLE: starts the application in a bundle, as macOS's command of that name does (open(1)).
//
// BUNDLE has no "/" at its end. The application, BUNDLE/Contents/MacOS/<bundle name>, becomes a process of its own: new
// session, no terminal, no descriptor of the caller's, nobody's child.
//
// Exit status: 0 when it has been started; 1, with one line on standard error, when it cannot be; 2 for wrong
// arguments.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void leaveCaller(int keep) {
    setsid();
    const int null = open("/dev/null", O_RDWR);
    for (int standard = 0; standard < 3; ++standard)
        dup2(null, standard);
    close_range(3, keep - 1, 0);
    close_range(keep + 1, ~0U, 0);
}

// Returns 0 once the program runs, or the error number that kept it from running.
int startDetached(const std::string &program) {
    int report[2]; // closed by a successful exec, or carries its error number
    if (pipe2(report, O_CLOEXEC) != 0)
        return errno;

    const pid_t child = fork();
    if (child < 0)
        return errno;
    if (child == 0) {
        const pid_t application = fork();
        if (application > 0)
            _exit(0);
        if (application == 0) {
            leaveCaller(report[1]);
            execl(program.c_str(), program.c_str(), static_cast<char *>(nullptr));
        }
        [[maybe_unused]] const ssize_t told = write(report[1], &errno, sizeof errno);
        _exit(1);
    }

    close(report[1]);
    waitpid(child, nullptr, 0);
    int error = 0;
    return read(report[0], &error, sizeof error) == sizeof error ? error : 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3 || std::strcmp(argv[1], "-n") != 0) {
        std::fprintf(stderr, "usage: open -n BUNDLE\n");
        return 2;
    }
    const std::filesystem::path bundle = argv[2];
    const std::string program = bundle / "Contents/MacOS" / bundle.stem();
    if (const int error = startDetached(program)) {
        std::fprintf(stderr, "open: cannot start %s: %s\n", program.c_str(), std::strerror(error));
        return 1;
    }
    return 0;
}
