// The companion's process: is it there, and asking it to end.
#pragma once

// Runs "pgrep -x KR" through the shell and waits for it. Returns true when it printed anything: a process of any user
// is named exactly "KR". Returns false when it printed nothing or could not be run, and true when an exception was
// raised, so that doubt never replaces a running companion.
bool KR_TitleCheck();

// Asks the companion to end, through Platform::CloseExternalApp, which matches its name against whole command lines.
// Waits for the command, not for the companion.
void CloseKR();
