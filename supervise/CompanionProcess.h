// The companion's process: finding it, and asking it to end.
#pragma once

// Runs "pgrep -x KR" through the shell and waits for it. Returns true when it printed anything:
// some user has a process named exactly "KR". Returns false when it printed nothing or could not be
// run. Returns true on an exception, so that a companion that may be running is not replaced.
bool KR_TitleCheck();

// Asks the companion to end with Platform::CloseExternalApp, which also ends whatever else has the
// companion's name anywhere in its command line. Waits for the command, not for the companion.
void CloseKR();
