// Fuzz targets for what reads bytes from outside, over libFuzzer; KORVANE_FUZZ names the target, "answer" or "line".
#include "companion/AppVersion.h"
#include "companion/ServiceClient.h"
#include "platform/FirstLine.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <unistd.h>

namespace {

void expect(bool condition) {
    if (!condition)
        std::abort();
}

void answer(const std::string &text) {
    const AppVersion version = parseServiceAnswer(text);
    expect(!isNewerThan(version, version));
}

// The version marker's and the manual-exit flag's.
void line(const std::string &content) {
    static const std::string path = "/tmp/fuzz." + std::to_string(getpid());
    std::ofstream(path, std::ios::binary) << content;
    const std::string line = readFirstLine(path);
    expect(line == content.substr(0, content.find('\n')));
    const AppVersion version = parseMarkerVersion(line);
    expect(version.build == 0 && version.revision == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const std::map<std::string, void (*)(const std::string &)> targets = {{"answer", answer}, {"line", line}};
    static const auto target = targets.at(std::getenv("KORVANE_FUZZ"));
    target(std::string(reinterpret_cast<const char *>(data), size));
    return 0;
}
