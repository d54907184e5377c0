// fcntl(2) with a command that macOS adds: put everything written to the file on stable storage.
#pragma once

#include_next <fcntl.h>

#include <unistd.h>

// A type of its own, so that the compiler picks the function below; the value is macOS's.
enum KorvaneFullFsync { F_FULLFSYNC = 51 };

// Flushes the file and the drive's cache, as fsync(2) does on Linux. Returns 0, or -1 with errno
// set.
inline int fcntl(int descriptor, KorvaneFullFsync) {
    return fsync(descriptor);
}
