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

TEST(Text, AnswersLoseACharacterAtEachEnd) {
    const std::pair<std::string, std::string> table[] = {
        {"\"2.6.1.4\"", "2.6.1.4"}, {"2.6.1.4", "0.0.0.0"}, {"x7.67", "7.6.0.0"}, {"77", "0.0.0.0"}, {"", "0.0.0.0"}};
    for (const auto &[answer, expected] : table)
        EXPECT_EQ(dotted(parseServiceAnswer(answer)), expected) << answer;
}

TEST(Text, NewerMeansAStrictlyGreaterKey) {
    const std::tuple<std::string, std::string, bool> table[] = {
        {"2.6", "2.5", true},
        {"1.1001", "2.0", true},
        {"1.1000", "2.0", false},
        {"2.5.9.9", "2.5", false},
        {"2147483647.2147483647", "2147483647.0", true},
        {"-2147483648.0", "2147483647.0", false},
    };
    for (const auto &[candidate, installed, newer] : table)
        EXPECT_EQ(isNewerThan(parseServiceVersion(candidate), parseMarkerVersion(installed)), newer) << candidate;
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
