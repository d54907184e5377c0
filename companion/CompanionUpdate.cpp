// The companion's update: stop, download, start.
#include "companion/CompanionUpdate.h"

#include "app/Globals.h"
#include "companion/ServiceClient.h"
#include "companion/VersionCheck.h"
#include "platform/Platform.h"
#include "supervise/CompanionProcess.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <thread>

using namespace std::chrono_literals;

namespace {

// Puts a backslash before each character that the shell still interprets between double quotes
// (sh(1), POSIX "Double-Quotes"), so that it passes on exactly text.
std::string inDoubleQuotes(const std::string &text) {
    std::string quoted = "\"";
    for (const char character : text) {
        if (character == '\\' || character == '"' || character == '$' || character == '`')
            quoted += '\\';
        quoted += character;
    }
    return quoted + '"';
}

} // namespace

void StartKR() {
    if (!serviceHasNewer("KR_CAP"))
        return;

    try {
        CloseKR();
    } catch (...) {
    }
    std::this_thread::sleep_for(2s);
    downloadSetup("KR", filepath + "KR.app/Contents/MacOS/KR");

    const std::string bundle = installFolder(getExecutablePath()) + "/KR.app";
    [[maybe_unused]] const int status = std::system(("open -n " + inDoubleQuotes(bundle)).c_str());
}

std::int32_t findCaseInsensitive(const std::string &text, const std::string &pattern) {
    const auto sameLetter = [](signed char a, signed char b) {
        return std::tolower(a) == std::tolower(b);
    };
    const auto match =
        std::search(text.begin(), text.end(), pattern.begin(), pattern.end(), sameLetter);
    if (match == text.end() && !pattern.empty())
        return -1;
    return static_cast<std::int32_t>(match - text.begin());
}
