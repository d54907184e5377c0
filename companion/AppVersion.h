// Version records: how they are read from text and compared.
#pragma once

#include <cstdint>
#include <string>

struct AppVersion {
    std::int32_t major = 0;
    std::int32_t minor = 0;
    std::int32_t build = 0;
    std::int32_t revision = 0;
};

// Both parsers follow sscanf's "%d" with a literal "." between the numbers, and stop at the first mismatch: fields that
// were not reached stay 0, and text after the last number is ignored. A number beyond 32 bits is held at the nearest
// 32-bit value.

// Reads the version marker's text, "%d.%d": build and revision stay 0.
AppVersion parseMarkerVersion(const std::string &text);

// Reads the service's version text, "%d.%d.%d.%d".
AppVersion parseServiceVersion(const std::string &text);

// True when the candidate's key, major * 1000 + minor, is strictly greater than the installed version's.
bool isNewerThan(const AppVersion &candidate, const AppVersion &installed);
