// The file through which the companion reports that the user quit it.
#pragma once

#include <string>

// Returns the first line of the flag file, "<filepath><uname_windows>_ManualExit.txt", without its line feed and
// otherwise as stored: "1" means that the user quit the companion. Returns the empty text when the file is missing,
// empty, unreadable or no regular file, or when anything fails. Never creates or writes the file. While uname_windows
// is empty, which it no longer is once start-up has passed, it waits, second by second, for the environment variable
// USER and keeps it there.
std::string readExitCheck();

// Deletes the flag file, silently also when that fails. Only a failed allocation is thrown.
void deleteManualExitFlag();
