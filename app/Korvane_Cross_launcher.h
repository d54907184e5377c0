// The launcher's start-up sequence and its own steps. `main` and the application class are in the
// source file only.
#pragma once

#include <string>

// Takes the lock on /tmp/<name>.lock that keeps a second launcher out, until the process ends.
// Returns true when another process holds it. Returns false when this one does, and also when the
// lock file cannot be opened (see openSharedFile): a launcher without a lock is better than none.
bool PreventMultipleInstances(const std::string &name);

// Returns the value of USER, even if empty, or of LOGNAME if USER is not set, or "unknown".
std::string getOSUsername();

// Runs the start-up sequence. Calls exit(0) when another launcher runs, and ends the process when
// this one is outdated (see CheckLauncher). Waits for a user name without limit. Throws
// std::system_error when the supervision thread cannot be created.
void initStartup();
