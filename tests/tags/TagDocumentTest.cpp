#include "tags/TagDocument.h"

#include <gtest/gtest.h>

using namespace trovan;

namespace {
const std::vector<PropertyMap> kTwo = {
    {{"TITLE", {"Uno"}}, {"ARTIST", {"Ana"}}, {"COMMENT", {"c"}}, {"LYRICS", {"letra"}}},
    {{"TITLE", {"Dos"}}, {"ARTIST", {"Ana"}}, {"COMMENT", {"c"}}, {"MOOD", {"x"}}},
};

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}
} // namespace

TEST(TagDocument, RendersSharedValuesAndMixedOnesAndReadsItselfBackUnchanged) {
    const std::string doc = TagDocument::render(kTwo);
    EXPECT_EQ(doc.substr(0, doc.find('\n')), "# Trovan · editando 2 pistas");
    EXPECT_NE(doc.find("\nTITLE: <varios>\nARTIST: Ana\nALBUMARTIST: \nALBUM: \n"),
              std::string::npos);
    // Common keys first, then the rest; never the lyrics.
    EXPECT_LT(doc.find("COMMENT: c"), doc.find("MOOD: <varios>"));
    EXPECT_EQ(doc.find("LYRICS"), std::string::npos);
    EXPECT_EQ(doc.back(), '\n');
    EXPECT_TRUE(TagDocument::parse(doc, kTwo).isEmpty());
}

TEST(TagDocument, EditsBecomeAPatch) {
    const std::string doc = TagDocument::render(kTwo);
    // A <varios> replaced, a line deleted, a lower-case key added, a key with a space, a
    // LYRICS line, garbage, CRLF line ends and a second value for a key.
    std::string edited = replaced(doc, "TITLE: <varios>", "TITLE: Mismo");
    edited = replaced(edited, "COMMENT: c\n", "");
    edited = replaced(edited, "ARTIST: Ana\n", "ARTIST: Ana\r\nartist: Bea\r\n");
    edited += "mood : Alegre\nMI CLAVE: no\nLYRICS: nunca\nbasura sin dos puntos\n";
    TagPatch patch = TagDocument::parse(edited, kTwo);
    EXPECT_EQ(patch.changes["TITLE"], std::vector<std::string>{"Mismo"});
    EXPECT_EQ(patch.changes["ARTIST"], (std::vector<std::string>{"Ana", "Bea"}));
    EXPECT_EQ(patch.changes["MOOD"], std::vector<std::string>{"Alegre"});
    EXPECT_EQ(patch.changes.size(), 3u);
    EXPECT_EQ(patch.remove, std::set<std::string>{"COMMENT"});
}

TEST(TagDocument, LineBreaksAndBackslashesRoundTrip) {
    const std::vector<PropertyMap> one = {{{"COMMENT", {"a\nb\\c\\n"}}}};
    const std::string doc = TagDocument::render(one);
    EXPECT_NE(doc.find("COMMENT: a\\nb\\\\c\\\\n\n"), std::string::npos);
    EXPECT_TRUE(TagDocument::parse(doc, one).isEmpty());
    EXPECT_EQ(TagDocument::unescape("x\\"), "x");
    EXPECT_EQ(TagDocument::unescape("\\q"), "q");
    // An emptied value is one empty value, not a removal.
    TagPatch patch = TagDocument::parse(replaced(doc, "a\\nb\\\\c\\\\n", ""), one);
    EXPECT_EQ(patch.changes["COMMENT"], std::vector<std::string>{""});
}
