// The version check shared by the companion's update and the launcher's check of itself.
#pragma once

#include <string>

// Asks the service for the current version of the application with this code and returns whether it
// is newer than the installed version. For both applications that is the version marker beside the
// launcher's executable. A marker that cannot be read counts as 0.0, and so does a service that
// gives no version. Throws nothing.
bool serviceHasNewer(const std::string &applicationCode);
