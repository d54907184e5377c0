// Fills the places of missing standard streams.
#include "platform/StandardStreams.h"

#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

void openMissingStandardStreams() {
    // open(2) returns the lowest free number, which is this one: the lower ones are open by then.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0)
            open("/dev/null", O_RDWR);
    }
}
