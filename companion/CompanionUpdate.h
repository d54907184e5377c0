// Bringing the companion up to date and starting it.
#pragma once

#include <cstdint>
#include <string>

// When the service's version of the companion is newer than the installed marker's: stops the companion, waits 2 s,
// downloads its executable over the installed one and starts its bundle with "open -n", the last also when the download
// failed. Otherwise does nothing at all. Blocks its thread for all of that; runs on one thread at a time. Failures of
// the single steps are dropped; only those of forming paths and commands (a failed allocation) are thrown.
void StartKR();

// Returns the position of the first place in text where pattern occurs, each character of both taken through tolower,
// or -1 when it occurs nowhere. An empty pattern is found at 0. Nobody calls it yet.
std::int32_t findCaseInsensitive(const std::string &text, const std::string &pattern);
