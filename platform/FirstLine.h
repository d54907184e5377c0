// Reading small text files that other programs write.
#pragma once

#include <string>

// Returns the first line of the file at path, without its line feed and otherwise exactly as
// stored. Returns an empty string when the file is missing, empty or not a regular file, or when it
// cannot be read to the line's end; a pipe in its place never blocks the caller. Returns only the
// first 64 KiB of a longer line, so that a huge file does not fill the memory. Throws only when an
// allocation fails.
std::string readFirstLine(const std::string &path);
