// Text in, value out: versions, searches, trimming, paths.
#include "companion/AppVersion.h"
#include "companion/CompanionUpdate.h"
#include "companion/ServiceClient.h"
#include "platform/Platform.h"
#include "ui/LoginDialog.h"

#include <gtest/gtest.h>
#include <tuple>
#include <vector>

namespace {

std::string dotted(const AppVersion &version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor) + "." +
           std::to_string(version.build) + "." + std::to_string(version.revision);
}

TEST(Text, VersionsParseLikeScanfAndNeverOverflow) {
    const std::pair<std::string, std::string> table[] = {
        {"2.6.1.4", "2.6.1.4"},
        {"  2.010\r", "2.10.0.0"},
        {"\t\n2. 5.\v+6.-7.8", "2.5.6.-7"},
        {"2 .5", "2.0.0.0"},
        {"2x5", "2.0.0.0"},
        {"2147483648.-99999999999999999999", "2147483647.-2147483648.0.0"},
        {std::string("2.\0005", 4), "2.0.0.0"}};
    for (const auto &[text, expected] : table) {
        const AppVersion version = parseServiceVersion(text);
        EXPECT_EQ(dotted(version), expected) << text;
        EXPECT_EQ(dotted(parseMarkerVersion(text)), dotted({version.major, version.minor})) << text;
    }
}

// docs/integrating.md tells the service's developer some of the rows for 2.5.
TEST(Text, NewerIsTheAnswerInsideItsEndsByMajorAndMinor) {
    using Answers = std::vector<std::string>;
    const Answers newer = {R"("2.6.0.0")", R"("10.0")",          R"("3")", R"("2.50")",
                           R"("2.1000")",  "404 page not found", "x7.67"};
    const Answers notNewer = {R"("2.05")", R"("2.5.9.9")", R"("v3.0")", R"({"version":"3.0"})",
                              "",          "12.0.0.0",     "3",         "77",
                              "\"2.6",     "\n\"2.6.0.0\""};
    const std::tuple<std::string, bool, Answers> table[] = {
        {"2.5", true, newer},
        {"2.5", false, notNewer},
        {"\"2.6\"", true, {R"("0.1")"}},
        {"2.999", true, {"\"3.0\"\r\n"}},
        {"2.0", true, {R"("1.1001")"}},
        {"2.0", false, {R"("1.1000")"}},
        {"2147483647.0", true, {R"("2147483647.2147483647")"}}};
    for (const auto &[installed, expected, answers] : table) {
        const AppVersion marker = parseMarkerVersion(installed);
        for (const std::string &answer : answers)
            EXPECT_EQ(isNewerThan(parseServiceAnswer(answer), marker), expected) << answer;
    }
}

TEST(Text, EdgesOfSearchTrimAndFolder) {
    EXPECT_EQ(findCaseInsensitive("Hello World", "WORLD"), 6);
    EXPECT_EQ(findCaseInsensitive("", "a"), -1);
    EXPECT_EQ(trimString(" \t\r\n a b \r\n\t "), "a b");
    EXPECT_EQ(trimString(" \n"), "");
    EXPECT_EQ(installFolder("/Korvane.app/Contents/MacOS/Korvane"), "/");
    EXPECT_EQ(installFolder(""), "");
}

} // namespace
