// The version check shared by the companion's update and the launcher's check of itself.
#pragma once

#include <string>

// Whether the service has a newer version of this application ("KR_CAP" or "Korvane_CAP") than the
// version marker says; for both it is the one beside the launcher's executable. A marker that
// cannot be read, and a service that gives no version, count as 0.0. Throws nothing.
bool serviceHasNewer(const std::string &applicationCode);
