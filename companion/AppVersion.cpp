// Version records: parsed as sscanf would, compared by one key.
#include "companion/AppVersion.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <limits>

namespace {

// For a number that does not fit, sscanf's behaviour is undefined; strtoll returns the nearest
// value that does.
void parseNumbers(const std::string &text, std::initializer_list<std::int32_t *> fields) {
    using Limits = std::numeric_limits<std::int32_t>;
    const char *at = text.c_str();
    for (auto field = fields.begin(); field != fields.end(); ++field) {
        if (field != fields.begin() && *at++ != '.')
            return;
        char *end = nullptr;
        const long long number = std::strtoll(at, &end, 10);
        if (end == at)
            return;
        **field =
            static_cast<std::int32_t>(std::clamp<long long>(number, Limits::min(), Limits::max()));
        at = end;
    }
}

std::int64_t key(const AppVersion &version) {
    return std::int64_t{version.major} * 1000 + version.minor;
}

} // namespace

AppVersion parseMarkerVersion(const std::string &text) {
    AppVersion version;
    parseNumbers(text, {&version.major, &version.minor});
    return version;
}

AppVersion parseServiceVersion(const std::string &text) {
    AppVersion version;
    parseNumbers(text, {&version.major, &version.minor, &version.build, &version.revision});
    return version;
}

bool isNewerThan(const AppVersion &candidate, const AppVersion &installed) {
    return key(candidate) > key(installed);
}
