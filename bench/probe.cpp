// Times one probe for the companion's process, many times over: probe COUNT [raw | shell]
//
// Prints the nanoseconds of each. "raw" starts pgrep itself instead, without a shell; "shell" a shell that does
// nothing.
#include "supervise/CompanionProcess.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void rawProbe() {
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0)
        std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    char name[] = "pgrep";
    char exact[] = "-x";
    char companion[] = "KR";
    char *const arguments[] = {name, exact, companion, nullptr};
    pid_t child = 0;
    if (posix_spawnp(&child, name, &actions, nullptr, arguments, environ) != 0)
        std::abort();
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    char line[32];
    while (read(output[0], line, sizeof line) > 0) {
    }
    close(output[0]);
    waitpid(child, nullptr, 0);
}

} // namespace

int main(int argc, char **argv) {
    for (int left = std::atoi(argv[1]); left > 0; --left) {
        const auto begin = std::chrono::steady_clock::now();
        if (argc > 2 && argv[2] == std::string("raw"))
            rawProbe();
        else if (argc > 2)
            pclose(popen(":", "r"));
        else
            KR_TitleCheck();
        const std::chrono::nanoseconds taken = std::chrono::steady_clock::now() - begin;
        std::printf("%lld\n", static_cast<long long>(taken.count()));
    }
}
