// The companion's process: finding it, and asking it to end.
#pragma once

// Whether some user has a process named exactly "KR", by pgrep -x. False when pgrep cannot be run;
// true on an exception, so that a companion that may be running is not replaced.
bool KR_TitleCheck();

// Sends SIGTERM to the companion, and to whatever else has "KR" in its command line. Does not wait
// for its end. See Platform::CloseExternalApp.
void CloseKR();
