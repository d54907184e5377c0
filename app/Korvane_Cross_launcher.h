// The launcher's start-up sequence and its own steps. `main` and the application class are in the
// source file only.
#pragma once

#include <string>

// Keeps a second launcher out with an exclusive record lock on "/tmp/<name>.lock", held until the
// process ends (fcntl(2), F_SETLK). Returns true when the lock is refused. Returns false when this
// process holds it, and also when the lock file cannot be opened or openSharedFile refuses it: a
// launcher without a lock is better than none.
bool PreventMultipleInstances(const std::string &name);

// Returns the login name of the user who runs the launcher: the value of USER if it is set, else of
// LOGNAME if that is set, else "unknown". An empty value counts as set. The bytes are returned
// unchanged.
std::string getOSUsername();

// Runs the start-up sequence, on the main thread. Calls exit(0) when another launcher runs. Waits
// without limit for a user name, asking once a second. If memory for filepath runs out, leaves it
// empty and goes on. Ends the process when the launcher is outdated (see CheckLauncher). Returns
// with the supervision thread running and the agent file written (see Platform::SetAutoStart).
// Throws std::system_error when the thread cannot be created.
void initStartup();
