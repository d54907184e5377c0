// Reading small text files that other programs write.
#pragma once

#include <string>

// Returns the first line of the file at path, exactly as stored but for its line feed, and at most
// 64 KiB of it. Returns an empty string when there is no regular file or it cannot be read. Never
// waits, as it would for a pipe's writer.
std::string readFirstLine(const std::string &path);
