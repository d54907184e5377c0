// Shell quoting with double quotes and backslashes.
#include "companion/ShellQuote.h"

std::string inDoubleQuotes(const std::string &text) {
    std::string quoted = "\"";
    for (const char character : text) {
        if (character == '\\' || character == '"' || character == '$' || character == '`')
            quoted += '\\';
        quoted += character;
    }
    return quoted + '"';
}
