// Fuzz targets for what reads bytes from outside, over libFuzzer; the environment's KORVANE_FUZZ names the target.
#include "companion/AppVersion.h"
#include "companion/CompanionUpdate.h"
#include "companion/ServiceClient.h"
#include "companion/ShellQuote.h"
#include "platform/FirstLine.h"
#include "ui/LoginDialog.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>

namespace {

void expect(bool condition) {
    if (!condition)
        std::abort();
}

std::string firstLineOf(const std::string &content) {
    static const std::string path = "/tmp/fuzz." + std::to_string(getpid());
    std::ofstream(path, std::ios::binary) << content;
    const std::string line = readFirstLine(path);
    expect(line == content.substr(0, std::min<std::size_t>(content.find('\n'), 1 << 16)));
    return line;
}

void answer(const std::string &text) {
    const AppVersion version = parseServiceAnswer(text);
    expect(!isNewerThan(version, version));
    expect(isNewerThan(version, {}) || !isNewerThan(version, {0, 1, 0, 0}));
}

void marker(const std::string &content) {
    const AppVersion version = parseMarkerVersion(firstLineOf(content));
    expect(version.build == 0 && version.revision == 0);
}

void flag(const std::string &content) {
    expect((firstLineOf(content) == "1") == (content == "1" || content.starts_with("1\n")));
}

void trim(const std::string &text) {
    const std::string blanks = " \t\n\r";
    const std::string trimmed = trimString(text);
    const auto place = text.find(trimmed);
    expect(trimmed.empty() ||
           (blanks.find(trimmed.front()) == std::string::npos && blanks.find(trimmed.back()) == std::string::npos));
    expect(text.substr(0, place).find_first_not_of(blanks) == std::string::npos);
    expect(text.substr(place + trimmed.size()).find_first_not_of(blanks) == std::string::npos);
}

void search(const std::string &input) {
    const auto split = std::min(input.find('|'), input.size());
    std::string pattern = input.substr(0, split);
    std::string text = input.substr(std::min(split + 1, input.size()));
    const std::int32_t found = findCaseInsensitive(text, pattern);
    for (std::string *folded : {&text, &pattern})
        std::transform(folded->begin(), folded->end(), folded->begin(),
                       [](unsigned char c) { return std::tolower(c); });
    expect(found == static_cast<std::int32_t>(text.find(pattern)));
}

void quote(const std::string &text) {
    struct sigaction timer = {}; // the fuzzer's own, which must not cut a read short
    sigaction(SIGALRM, nullptr, &timer);
    timer.sa_flags |= SA_RESTART;
    sigaction(SIGALRM, &timer, nullptr);
    const std::string name = text.substr(0, text.find('\0'));
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> shell(
        popen(("printf %s " + inDoubleQuotes(name)).c_str(), "r"), pclose);
    std::string result;
    for (int byte; (byte = std::getc(shell.get())) != EOF;)
        result += static_cast<char>(byte);
    expect(result == name);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static void (*const target)(const std::string &) =
        std::map<std::string, void (*)(const std::string &)>{{"answer", answer}, {"marker", marker}, {"flag", flag},
                                                             {"trim", trim},     {"search", search}, {"quote", quote}}
            .at(std::getenv("KORVANE_FUZZ"));
    target(std::string(reinterpret_cast<const char *>(data), size));
    return 0;
}
