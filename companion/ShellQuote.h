// Passing text through the shell unharmed.
#pragma once

#include <string>

// Returns text between double quotes, with a backslash before each character that the shell still interprets there:
// backslash, double quote, dollar and backtick (sh(1), POSIX "Double-Quotes"). The shell hands exactly the text on.
std::string inDoubleQuotes(const std::string &text);
