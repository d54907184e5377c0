// Start-up's check that the launcher is not outdated.
#pragma once

// Ends the launcher with wxExit when the service's version of it is newer than the version marker;
// otherwise has no effect. Main thread only, and before the supervision thread is created: it joins
// the threads in g_threads, and the supervision thread may never end. When no event loop runs,
// wxExit does not return: the process ends with status 255.
void CheckLauncher();

// Returns true once the launcher has been found outdated; the caller must start nothing more.
// CheckLauncher then returns only when an event loop runs: wxExit returns, and the loop ends later.
bool launcherIsEnding();
