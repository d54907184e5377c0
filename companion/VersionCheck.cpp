// Compares the service's version with the version marker.
#include "companion/VersionCheck.h"

#include "app/Globals.h"
#include "companion/AppVersion.h"
#include "companion/ServiceClient.h"
#include "platform/Platform.h"

bool serviceHasNewer(const std::string &applicationCode) {
    AppVersion installed;
    try {
        installed = parseMarkerVersion(
            Platform::GetExternalAppVersion(filepath + "Korvane.app/Contents/MacOS/Korvane"));
    } catch (...) {
    }
    return isNewerThan(getServiceVersion(applicationCode), installed);
}
