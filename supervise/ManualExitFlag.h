// The manual-exit flag: the file by which the companion reports that the user quit it.
#pragma once

#include <string>

// Returns the first line of <filepath><uname_windows>_ManualExit.txt; "1" means that the user quit
// the companion. Returns an empty string when there is none or anything fails (see readFirstLine).
// If start-up has not set uname_windows, waits for the environment variable USER.
std::string readExitCheck();

// Deletes the flag, if it can. Throws only when memory runs out.
void deleteManualExitFlag();
