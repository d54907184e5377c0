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

// Numbers are read as sscanf's "%d" reads them, with "." between them, up to the first mismatch;
// what is missing is 0. A number that does not fit in 32 bits becomes the nearest one that does.

// Reads two numbers, major and minor.
AppVersion parseMarkerVersion(const std::string &text);

// Reads four numbers.
AppVersion parseServiceVersion(const std::string &text);

// Compares major * 1000 + minor.
bool isNewerThan(const AppVersion &candidate, const AppVersion &installed);
