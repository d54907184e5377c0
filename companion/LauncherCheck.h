// The launcher's check of itself at start-up.
#pragma once

// Ends the launcher through the toolkit when the service reports a newer launcher than the installed marker; otherwise
// has no effect. Main thread only, before the supervision thread is started: it joins what runs in g_threads, and that
// thread would never end. With no event loop running wxExit does not return, and the process ends with status 255.
void CheckLauncher();

// True once CheckLauncher has found the launcher outdated and wxExit has come back (it does when an event loop runs,
// which then ends): start nothing more.
bool launcherIsEnding();
