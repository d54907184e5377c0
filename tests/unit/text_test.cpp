// Text in, value out: versions, searches, trimming, quoting.
#include "companion/AppVersion.h"
#include "companion/CompanionUpdate.h"
#include "platform/Platform.h"
#include "ui/LoginDialog.h"

#include <gtest/gtest.h>

namespace {

using Numbers = std::array<std::int64_t, 4>;

Numbers numbers(const AppVersion &version) {
    return {version.major, version.minor, version.build, version.revision};
}

TEST(Text, VersionsParseLikeScanfAndNeverOverflow) {
    constexpr std::int64_t kMax = 2147483647;
    constexpr std::int64_t kMin = -kMax - 1;
    const struct {
        std::string text;
        Numbers service;
    } table[] = {
        {"2.6.1.4", {2, 6, 1, 4}},
        {"2.6", {2, 6, 0, 0}},
        {"2", {2, 0, 0, 0}},
        {"", {0, 0, 0, 0}},
        {"  2.5\r", {2, 5, 0, 0}},
        {"\t\n2. 5.\v+6.-7.8", {2, 5, 6, -7}},
        {"2 .5", {2, 0, 0, 0}},
        {"2..5", {2, 0, 0, 0}},
        {"2.x", {2, 0, 0, 0}},
        {".6.1.", {0, 0, 0, 0}},
        {"v2.5", {0, 0, 0, 0}},
        {"+-2.5", {0, 0, 0, 0}},
        {"-2.5", {-2, 5, 0, 0}},
        {"0x10.5", {0, 0, 0, 0}},
        {"007.08", {7, 8, 0, 0}},
        {"2147483648.99999999999999999999", {kMax, kMax, 0, 0}},
        {"-2147483649.-99999999999999999999", {kMin, kMin, 0, 0}},
        {std::string("2.\0005", 4), {2, 0, 0, 0}},
    };
    for (const auto &[text, expected] : table) {
        EXPECT_EQ(numbers(parseServiceVersion(text)), expected) << text;
        EXPECT_EQ(numbers(parseMarkerVersion(text)), (Numbers{expected[0], expected[1], 0, 0})) << text;
    }
}

TEST(Text, NewerMeansAStrictlyGreaterKey) {
    const struct {
        AppVersion candidate, installed;
        bool newer;
    } table[] = {
        {{2, 6, 0, 0}, {2, 5, 0, 0}, true},
        {{3, 0, 0, 0}, {2, 999, 0, 0}, true},
        {{1, 1000, 0, 0}, {2, 0, 0, 0}, false},
        {{2, 5, 9, 9}, {2, 5, 0, 0}, false},
        {{0, 0, 0, 0}, {0, 0, 0, 0}, false},
        {{2147483647, 2147483647, 0, 0}, {2147483647, 0, 0, 0}, true},
        {{-2147483648, 0, 0, 0}, {2147483647, 0, 0, 0}, false},
    };
    for (const auto &[candidate, installed, newer] : table)
        EXPECT_EQ(isNewerThan(candidate, installed), newer) << candidate.major << "." << candidate.minor;
}

TEST(Text, EdgesOfSearchTrimAndFolder) {
    EXPECT_EQ(findCaseInsensitive("Hello World", ""), 0);
    EXPECT_EQ(findCaseInsensitive("", "a"), -1);
    EXPECT_EQ(trimString("\v \f"), "\v \f");
    EXPECT_EQ(installFolder("/Korvane.app/Contents/MacOS/Korvane"), "/");
    EXPECT_EQ(installFolder(""), "");
}

} // namespace
