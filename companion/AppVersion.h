// Version records: reading them from text and comparing them.
#pragma once

#include <cstdint>
#include <string>

struct AppVersion {
    std::int32_t major = 0;
    std::int32_t minor = 0;
    std::int32_t build = 0;
    std::int32_t revision = 0;
};

// Both parsers read numbers as sscanf's "%d" does, with a literal "." between them, and stop at the
// first mismatch. Fields not reached stay 0; text after the last number is ignored. A number that
// does not fit in 32 bits becomes the nearest one that does.

// Reads the version marker's text, "%d.%d": build and revision stay 0.
AppVersion parseMarkerVersion(const std::string &text);

// Reads the service's version text, "%d.%d.%d.%d".
AppVersion parseServiceVersion(const std::string &text);

// True when the candidate's key, major * 1000 + minor, is strictly greater than the installed
// version's.
bool isNewerThan(const AppVersion &candidate, const AppVersion &installed);
