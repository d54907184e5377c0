// Reading small text files that others write.
#pragma once

#include <string>

// Returns the first line of the file at path, without its line feed and otherwise exactly as stored. Returns the empty
// text when the file is missing, unreadable, empty or not a regular file; a pipe in its place never blocks the caller.
// Of a line longer than 64 KiB the first 64 KiB are returned, so that a huge file costs no memory. Only a failed
// allocation is thrown.
std::string readFirstLine(const std::string &path);
