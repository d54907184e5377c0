// Updating the companion and starting it.
#pragma once

#include <cstdint>
#include <string>

// When the service's version of the companion is newer than the version marker: stops the
// companion, waits 2 s, downloads its executable over the installed one and starts its bundle with
// "open -n", even if the download failed. Otherwise does nothing. Blocks the calling thread
// meanwhile; runs on one thread at a time. Ignores the failure of a step. Throws only when memory
// for a path or a command cannot be allocated.
void StartKR();

// Returns the position of the first occurrence of pattern in text, or -1 when there is none.
// Characters are compared after tolower. An empty pattern is found at 0. Nothing calls it yet.
std::int32_t findCaseInsensitive(const std::string &text, const std::string &pattern);
