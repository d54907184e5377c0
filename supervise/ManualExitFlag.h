// The file through which the companion reports that the user quit it.
#pragma once

#include <string>

// Returns the flag file's path: "<filepath><uname_windows>_ManualExit.txt".
std::string manualExitFlagPath();

// Returns the first line of the flag file, without its line feed and otherwise as stored: "1" means that the user quit
// the companion. Returns the empty text when the file is missing, empty, unreadable or no regular file, or when
// anything fails. Never creates or writes the file. Waits, second by second, for the environment variable USER while
// uname_windows is empty, which it no longer is once start-up has passed.
std::string readExitCheck();
