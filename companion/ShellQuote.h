// Quoting text for the shell.
#pragma once

#include <string>

// Returns text in double quotes, with a backslash before each character that the shell still
// interprets there: backslash, double quote, dollar and backtick (sh(1), POSIX "Double-Quotes").
// The shell passes on exactly text.
std::string inDoubleQuotes(const std::string &text);
