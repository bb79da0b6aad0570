// SPDX-License-Identifier: GPL-3.0-or-later
#include "text/Text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace trovan::text;
using Strings = std::vector<std::string>;

namespace {
Strings clusters(std::string_view s) {
    Strings out;
    Graphemes g(s);
    std::string_view c;
    while (g.next(c))
        out.emplace_back(c);
    return out;
}
} // namespace

// Text made of stand-alone scalars takes a quick path; it must split exactly as the full
// rules do (marks, ZWJ sequences, flags, CR LF, Hangul jamo).
TEST(Graphemes, SplitIntoUserPerceivedCharacters) {
    const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";
    const std::string flag = "\U0001F1EA\U0001F1F8";
    const std::pair<std::string, Strings> cases[] = {
        {"ab", {"a", "b"}},
        {"e\u0301x", {"e\u0301", "x"}},
        {family + flag + "!", {family, flag, "!"}},
        {"a\r\nb", {"a", "\r\n", "b"}},
        {"\u00F1a\r\n\u2501", {"\u00F1", "a", "\r\n", "\u2501"}},
        {"\u65E5\u672C", {"\u65E5", "\u672C"}},
        {"\u1100\u1161x", {"\u1100\u1161", "x"}},
        {"\u00E9\u0301z", {"\u00E9\u0301", "z"}}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(clusters(text), expected) << text;
    EXPECT_EQ(graphemeBoundaries("e\u0301a"), (std::vector<std::size_t>{0, 3, 4}));
    EXPECT_EQ(graphemeBoundaries("\u00F1\u00F1"), (std::vector<std::size_t>{0, 2, 4}));
    EXPECT_TRUE(clusters("").empty());
    EXPECT_EQ(graphemeCount("ma\u00F1ana"), 6u);

    // Ill-formed bytes are neither lost nor duplicated.
    const std::string bad = "a\xFF\xC3(\x80z\xF0\x9F";
    std::string joined;
    for (const auto& c : clusters(bad))
        joined += c;
    EXPECT_EQ(joined, bad);
    EXPECT_EQ(repairUtf8("a\xFFz"), "a\uFFFDz");
    EXPECT_TRUE(isValidUtf8("ma\u00F1ana"));
    EXPECT_FALSE(isValidUtf8("\xC3"));
}

// A cluster is as wide as its first scalar: emoji presentation, East Asian wide and
// full-width ranges (checked at their edges) take two columns, controls none.
TEST(DisplayWidth, FollowsTheFirstScalarRule) {
    const std::pair<std::string, int> cases[] = {
        {"abc", 3},    {"e\u0301", 1}, {"\U0001F3B5", 2}, {"\u263A", 1},   {"\u65E5\u672C", 4},
        {"\uFF21", 2}, {"\uD55C", 2},  {"\U00020000", 2}, {"a\tb\x7F", 2}, {"\u0085", 0},
        {"\u00A0", 1}, {"\u1100", 2},  {"\u303F", 1},     {"", 0}};
    for (const auto& [text, width] : cases)
        EXPECT_EQ(displayWidth(text), width) << text;
    EXPECT_EQ(charWidth(""), 0);
}

TEST(Fold, IgnoresCaseDiacriticsAndWidth) {
    const std::pair<std::string, std::string> cases[] = {
        {"Beyonc\u00E9", "beyonce"},      {"BEYONCE", "beyonce"},
        {"Beyonce\u0301", "beyonce"},     {"\uFF22\uFF25\uFF39", "bey"},
        {"Stra\u00DFe", "strasse"},       {"\u00D1o\u00F1o", "nono"},
        {"\u65E5\u672C", "\u65E5\u672C"}, {"", ""}};
    for (const auto& [text, folded] : cases)
        EXPECT_EQ(fold(text), folded) << text;
    EXPECT_EQ(fold("\uFF71"), fold("\u30A2")); // half-width katakana

    // Latin text folds without ICU; a trailing ideograph sends the same text through ICU,
    // and both must agree, for every Latin letter beside ASCII and beside each other.
    std::string latin;
    for (char32_t c = 0x80; c < 0x250; ++c) {
        const std::string letter{static_cast<char>(0xC0 | (c >> 6)),
                                 static_cast<char>(0x80 | (c & 0x3F))};
        latin += letter;
        for (const std::string& s : {letter, "Ab" + letter + "9Z", latin})
            EXPECT_EQ(fold(s + "\u65E5"), fold(s) + "\u65E5") << s;
    }
    EXPECT_EQ(fold("\xC3"), "\xEF\xBF\xBD"); // cut short: ICU's replacement character
    EXPECT_EQ(upper("\u00E1b"), "\u00C1B");
    EXPECT_EQ(lower("CANCI\u00D3N"), "canci\u00F3n");
}

// Digit runs compare as numbers ("7" before "07" when equal), everything else by code point.
TEST(Numbers, DigitRunsCompareAsNumbersAndNumericScalarsAreRecognised) {
    const Strings ascending = {"1",        "2pac",      "7",       "07",  "9",     "10", "10cc",
                               "a1b",      "a2",        "a10",     "abc", "abcd",  "b",  "track 2",
                               "track 10", "vol 007 b", "vol 8 a", "z",   "\u00E1"};
    for (std::size_t i = 1; i < ascending.size(); ++i) {
        EXPECT_LT(compareNumeric(ascending[i - 1], ascending[i]), 0) << ascending[i];
        EXPECT_GT(compareNumeric(ascending[i], ascending[i - 1]), 0) << ascending[i];
    }
    EXPECT_EQ(compareNumeric("abc", "abc"), 0);
    EXPECT_LT(compareNumeric("99999999999999999999999", "100000000000000000000000"), 0);

    for (const char* s : {"7", "\u00BD", "\u0663"})
        EXPECT_TRUE(isNumeric(s)) << s;
    EXPECT_FALSE(isNumeric("-"));
    EXPECT_FALSE(isNumeric(""));
}
