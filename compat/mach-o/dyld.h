// The dynamic loader's query for the running executable, as macOS declares it (dyld(3)).
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Stores the path by which the running executable was started, absolute but unresolved (links and ".." stay), in buf,
// whose size in bytes stands in *bufsize. Returns 0; or, when the buffer is too small, -1 with the size needed in
// *bufsize and the buffer untouched.
int _NSGetExecutablePath(char *buf, uint32_t *bufsize);

#ifdef __cplusplus
}
#endif
