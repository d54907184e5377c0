// The manual-exit flag: the file by which the companion reports that the user quit it.
#pragma once

#include <string>

// Returns the first line of the flag, "<filepath><uname_windows>_ManualExit.txt", without its line
// feed and otherwise as stored: "1" means that the user quit the companion. Returns an empty string
// when the file is missing, empty, unreadable or not a regular file, or when anything fails. Never
// creates or writes the file. While uname_windows is empty, which it is not after start-up, reads
// the environment variable USER into it once a second.
std::string readExitCheck();

// Deletes the flag; a failure to do so is ignored. Throws only when an allocation fails.
void deleteManualExitFlag();
