#include "text/Text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace trovan::text;

namespace {
std::vector<std::string> clusters(std::string_view s) {
    std::vector<std::string> out;
    Graphemes g(s);
    std::string_view c;
    while (g.next(c)) out.emplace_back(c);
    return out;
}
} // namespace

TEST(Graphemes, CombiningMarksEmojiSequencesAndCrLfAreOneCluster) {
    EXPECT_EQ(clusters("ab"), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(clusters("e\xCC\x81x"), (std::vector<std::string>{"e\xCC\x81", "x"}));
    // Family emoji joined by ZWJ, then a flag made of two regional indicators.
    std::string family = "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7";
    std::string flag = "\xF0\x9F\x87\xAA\xF0\x9F\x87\xB8";
    EXPECT_EQ(clusters(family + flag + "!"), (std::vector<std::string>{family, flag, "!"}));
    EXPECT_EQ(clusters("a\r\nb"), (std::vector<std::string>{"a", "\r\n", "b"}));
    EXPECT_TRUE(clusters("").empty());
    EXPECT_EQ(graphemeBoundaries("e\xCC\x81" "a"), (std::vector<std::size_t>{0, 3, 4}));
    EXPECT_EQ(graphemeCount("ma\xC3\xB1" "ana"), 6u);
}

TEST(Graphemes, IllFormedBytesNeverLoseOrDuplicateInput) {
    std::string bad = "a\xFF\xC3(\x80z\xF0\x9F";
    std::string joined;
    for (const auto& c : clusters(bad)) joined += c;
    EXPECT_EQ(joined, bad);
    EXPECT_EQ(repairUtf8("a\xFFz"), "a\xEF\xBF\xBDz");
    EXPECT_TRUE(isValidUtf8("ma\xC3\xB1" "ana"));
    EXPECT_FALSE(isValidUtf8("\xC3"));
}

TEST(DisplayWidth, FollowsTheFirstScalarRule) {
    EXPECT_EQ(displayWidth("abc"), 3);
    EXPECT_EQ(displayWidth("e\xCC\x81"), 1);                 // e + combining acute
    EXPECT_EQ(displayWidth("\xF0\x9F\x8E\xB5"), 2);          // U+1F3B5, Emoji_Presentation
    EXPECT_EQ(displayWidth("\xE2\x98\xBA"), 1);              // U+263A has no emoji presentation
    EXPECT_EQ(displayWidth("\xE6\x97\xA5\xE6\x9C\xAC"), 4);  // two ideographs
    EXPECT_EQ(displayWidth("\xEF\xBC\xA1"), 2);              // full-width A
    EXPECT_EQ(displayWidth("\xED\x95\x9C"), 2);              // Hangul syllable
    EXPECT_EQ(displayWidth("\xF0\xA0\x80\x80"), 2);          // U+20000
    EXPECT_EQ(displayWidth("a\tb\x7F"), 2);                  // controls take nothing
    EXPECT_EQ(displayWidth("\xC2\x85"), 0);                  // C1 control
    EXPECT_EQ(displayWidth("\xC2\xA0"), 1);                  // U+00A0 is printable
    EXPECT_EQ(displayWidth("\xE1\x84\x80"), 2);              // U+1100 starts the wide ranges
    EXPECT_EQ(displayWidth("\xE3\x80\xBF"), 1);              // U+303F sits between two ranges
    EXPECT_EQ(charWidth(""), 0);
}

TEST(Fold, IgnoresCaseDiacriticsAndWidth) {
    EXPECT_EQ(fold("Beyonc\xC3\xA9"), "beyonce");
    EXPECT_EQ(fold("BEYONCE"), "beyonce");
    EXPECT_EQ(fold("Beyonce\xCC\x81"), "beyonce");           // decomposed accent
    EXPECT_EQ(fold("\xEF\xBC\xA2\xEF\xBC\xA5\xEF\xBC\xB9"), "bey"); // full-width BEY
    EXPECT_EQ(fold("\xEF\xBD\xB1"), fold("\xE3\x82\xA2"));   // half-width katakana A
    EXPECT_EQ(fold("Stra\xC3\x9F" "e"), "strasse");          // full case folding
    EXPECT_EQ(fold("\xC3\x91" "o\xC3\xB1" "o"), "nono");
    EXPECT_EQ(fold("\xE6\x97\xA5\xE6\x9C\xAC"), "\xE6\x97\xA5\xE6\x9C\xAC");
    EXPECT_EQ(fold(""), "");
    EXPECT_EQ(upper("\xC3\xA1" "b"), "\xC3\x81" "B");
    EXPECT_EQ(lower("CANCI\xC3\x93N"), "canci\xC3\xB3n");
}

TEST(CompareNumeric, DigitRunsCompareAsNumbers) {
    EXPECT_LT(compareNumeric("2pac", "10cc"), 0);
    EXPECT_LT(compareNumeric("track 2", "track 10"), 0);
    EXPECT_GT(compareNumeric("b", "a10"), 0);
    EXPECT_EQ(compareNumeric("abc", "abc"), 0);
    EXPECT_LT(compareNumeric("abc", "abcd"), 0);
    EXPECT_LT(compareNumeric("7", "07"), 0);
    EXPECT_LT(compareNumeric("vol 007 b", "vol 8 a"), 0);
    EXPECT_LT(compareNumeric("99999999999999999999999", "100000000000000000000000"), 0);
    EXPECT_LT(compareNumeric("z", "\xC3\xA1"), 0); // code point order, no locale

    std::vector<std::string> v{"10", "9", "1", "a2", "a10", "a1b"};
    std::sort(v.begin(), v.end(), [](auto& x, auto& y) { return lessNumeric(x, y); });
    EXPECT_EQ(v, (std::vector<std::string>{"1", "9", "10", "a1b", "a2", "a10"}));
}

TEST(IsNumeric, UsesTheUnicodeNumericProperty) {
    EXPECT_TRUE(isNumeric("7"));
    EXPECT_TRUE(isNumeric("\xC2\xBD"));     // one half
    EXPECT_TRUE(isNumeric("\xD9\xA3"));     // Arabic-Indic three
    EXPECT_FALSE(isNumeric("-"));
    EXPECT_FALSE(isNumeric(""));
}

TEST(Graphemes, PlainNonAsciiTextAgreesWithTheFullRules) {
    // Strings that take the quick path and strings that need the break iterator must
    // split the same way they would one scalar at a time.
    EXPECT_EQ(clusters("\xC3\xB1" "a\r\n\xE2\x94\x81"),
              (std::vector<std::string>{"\xC3\xB1", "a", "\r\n", "\xE2\x94\x81"}));
    EXPECT_EQ(clusters("\xE6\x97\xA5\xE6\x9C\xAC"), (std::vector<std::string>{"\xE6\x97\xA5", "\xE6\x9C\xAC"}));
    // Hangul jamo L + V join; a mark after an accented letter joins it.
    EXPECT_EQ(clusters("\xE1\x84\x80\xE1\x85\xA1x"), (std::vector<std::string>{"\xE1\x84\x80\xE1\x85\xA1", "x"}));
    EXPECT_EQ(clusters("\xC3\xA9\xCC\x81z"), (std::vector<std::string>{"\xC3\xA9\xCC\x81", "z"}));
    EXPECT_EQ(graphemeBoundaries("\xC3\xB1\xC3\xB1"), (std::vector<std::size_t>{0, 2, 4}));
}
