// The login name of the user who runs the launcher.
#pragma once

#include <string>

// Returns the login name: the value of USER if it is set, else of LOGNAME if that is set, else
// "unknown". An empty value counts as set. The bytes are returned unchanged.
std::string getOSUsername();
