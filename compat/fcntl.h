// fcntl(2) with the command that macOS has besides: everything written to the file reaches the medium itself.
#pragma once

#include_next <fcntl.h>

#include <unistd.h>

#ifdef __cplusplus

// A type of its own, so that the compiler picks the function below; the value is macOS's.
enum KorvaneFullFsync { F_FULLFSYNC = 51 };

// Flushes the file and the drive's cache, which on Linux is what fsync(2) does. Returns 0, or -1 with errno set.
inline int fcntl(int descriptor, KorvaneFullFsync) {
    return fsync(descriptor);
}

#endif
