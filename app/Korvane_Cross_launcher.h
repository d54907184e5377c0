// The launcher's start-up sequence. The entry point and the application class stay in the source file.
#pragma once

#include <string>

// Keeps a second launcher out with an exclusive record lock on "/tmp/<name>.lock", held until the process ends
// (fcntl(2), F_SETLK). Returns true when the lock is refused, and false when it is held by this process or when the
// lock file cannot be opened at all: a launcher without a lock is better than none.
bool PreventMultipleInstances(const std::string &name);

// The start-up sequence, on the main thread. Ends the process with exit(0) when another launcher runs. Waits without
// limit for a user name, once a second while it is empty, and goes on with filepath empty when there is no memory to
// work the folder out. Returns with the supervision thread running and the agent file written as far as
// Platform::SetAutoStart can, or, for an outdated launcher, with neither. An error creating the thread
// (std::system_error) reaches the caller.
void initStartup();
