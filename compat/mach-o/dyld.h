// The dynamic loader's query for the running executable's path, as macOS declares it (dyld(3)).
#pragma once

#include <stdint.h>

// Stores the path that the running executable was started by, absolute but unresolved (links and
// ".." stay), in buf, whose size in bytes is *bufsize. Returns 0. If the buffer is too small,
// returns -1, stores the size needed in *bufsize and leaves the buffer untouched.
int _NSGetExecutablePath(char *buf, uint32_t *bufsize);
