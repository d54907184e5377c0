// libdispatch's counting semaphores, with its names (dispatch_semaphore_create(3)).
#pragma once

#include <stdint.h>

typedef struct dispatch_semaphore_s *dispatch_semaphore_t;
typedef uint64_t dispatch_time_t;

// The only time limit supported: none.
#define DISPATCH_TIME_FOREVER (~UINT64_C(0))

// Returns a semaphore that lets value waiters pass before one blocks, or null when value is
// negative.
dispatch_semaphore_t dispatch_semaphore_create(intptr_t value);

// Takes one from the count, and blocks while that is 0. The limit must be DISPATCH_TIME_FOREVER.
// Returns 0.
intptr_t dispatch_semaphore_wait(dispatch_semaphore_t semaphore, dispatch_time_t limit);

// Adds one to the count. Returns 0; macOS also tells whether that wakes a thread.
intptr_t dispatch_semaphore_signal(dispatch_semaphore_t semaphore);
