// The question that the companion's update and the launcher's own check have in common.
#pragma once

#include <string>

// Asks the service for the current version of the application with this code and returns whether it is newer than the
// installed version: the one in the marker beside the launcher's executable, for both applications. A marker that
// cannot be read and a service that gives no version both count as 0.0. Throws nothing.
bool serviceHasNewer(const std::string &applicationCode);
