// Text in, value out: versions, searches, trimming, paths.
#include "companion/AppVersion.h"
#include "companion/CompanionUpdate.h"
#include "companion/ServiceClient.h"
#include "platform/Platform.h"
#include "ui/LoginDialog.h"

#include <gtest/gtest.h>
#include <tuple>

namespace {

std::string dotted(const AppVersion &version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor) + "." + std::to_string(version.build) +
           "." + std::to_string(version.revision);
}

TEST(Text, VersionsParseLikeScanfAndNeverOverflow) {
    const std::pair<std::string, std::string> table[] = {
        {"2.6.1.4", "2.6.1.4"},
        {"", "0.0.0.0"},
        {"  2.010\r", "2.10.0.0"},
        {"\t\n2. 5.\v+6.-7.8", "2.5.6.-7"},
        {"2 .5", "2.0.0.0"},
        {"2x6", "2.0.0.0"},
        {"2147483648.99999999999999999999", "2147483647.2147483647.0.0"},
        {"-2147483649.-99999999999999999999", "-2147483648.-2147483648.0.0"},
        {std::string("2.\0005", 4), "2.0.0.0"}};
    for (const auto &[text, expected] : table) {
        const AppVersion version = parseServiceVersion(text);
        EXPECT_EQ(dotted(version), expected) << text;
        EXPECT_EQ(dotted(parseMarkerVersion(text)), dotted({version.major, version.minor})) << text;
    }
}

// docs/integrating.md tells the service's developer the rows against 2.5.
TEST(Text, AnswersAreReadInsideTheirEndsAndComparedByMajorAndMinor) {
    const std::tuple<std::string, std::string, std::string, bool> table[] = {
        {"\"2.6.0.0\"", "2.6.0.0", "2.5", true},
        {"\"10.0\"", "10.0.0.0", "2.5", true},
        {"\"3\"", "3.0.0.0", "2.5", true},
        {"\"2.50\"", "2.50.0.0", "2.5", true},
        {"\"2.999\"", "2.999.0.0", "2.5", true},
        {"\"2.1000\"", "2.1000.0.0", "2.5", true},
        {"\"2.05\"", "2.5.0.0", "2.5", false},
        {"\"2.5.9.9\"", "2.5.9.9", "2.5", false},
        {"\"2.4\"", "2.4.0.0", "2.5", false},
        {"\"v3.0\"", "0.0.0.0", "2.5", false},
        {"", "0.0.0.0", "2.5", false},
        {"{\"version\":\"3.0\"}", "0.0.0.0", "2.5", false},
        {"12.0.0.0", "2.0.0.0", "2.5", false},
        {"404 page not found", "4.0.0.0", "2.5", true},
        {"77", "0.0.0.0", "2.5", false},
        {"x7.67", "7.6.0.0", "2.5", true},
        {"\"3.0\"\r\n", "3.0.0.0", "2.999", true},
        {"\"1.1001\"", "1.1001.0.0", "2.0", true},
        {"\"1.1000\"", "1.1000.0.0", "2.0", false},
        {"\"2147483647.2147483647\"", "2147483647.2147483647.0.0", "2147483647.0", true},
        {"\"-2147483648.0\"", "-2147483648.0.0.0", "2147483647.0", false},
    };
    for (const auto &[answer, version, installed, newer] : table) {
        EXPECT_EQ(dotted(parseServiceAnswer(answer)), version) << answer;
        EXPECT_EQ(isNewerThan(parseServiceAnswer(answer), parseMarkerVersion(installed)), newer) << answer;
    }
}

TEST(Text, EdgesOfSearchTrimAndFolder) {
    EXPECT_EQ(findCaseInsensitive("Hello World", "WORLD"), 6);
    EXPECT_EQ(findCaseInsensitive("", ""), 0);
    EXPECT_EQ(findCaseInsensitive("", "a"), -1);
    EXPECT_EQ(trimString(" \t\r\n a b \r\n\t "), "a b");
    EXPECT_EQ(trimString("\v \f"), "\v \f");
    EXPECT_EQ(trimString(" \n"), "");
    EXPECT_EQ(installFolder("/Korvane.app/Contents/MacOS/Korvane"), "/");
    EXPECT_EQ(installFolder(""), "");
}

} // namespace
