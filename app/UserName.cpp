// Gets the login name from the environment.
#include "app/UserName.h"

#include <cstdlib>

std::string getOSUsername() {
    if (const char *user = std::getenv("USER"))
        return user;
    if (const char *logname = std::getenv("LOGNAME"))
        return logname;
    return "unknown";
}
