// Updating the companion and starting it.
#pragma once

#include <cstdint>
#include <string>

// If the service has a newer companion than the version marker says: stops the companion, waits 2
// s, downloads the new executable over the old one and starts the bundle, even if one of these
// steps has failed. Otherwise does nothing. Never runs on two threads at once. Throws only when
// memory runs out.
void StartKR();

// Returns where pattern first occurs in text, or -1. Letters match whatever their case (tolower);
// an empty pattern is at 0. Nothing calls it yet.
std::int32_t findCaseInsensitive(const std::string &text, const std::string &pattern);
