// Who runs the launcher.
#pragma once

#include <string>

// Returns the login name: the value of USER when it is set, else that of LOGNAME, else "unknown". A variable that is
// set to the empty text counts as set. The bytes are returned unchanged.
std::string getOSUsername();
