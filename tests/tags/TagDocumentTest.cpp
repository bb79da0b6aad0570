// SPDX-License-Identifier: GPL-3.0-or-later
#include "tags/TagDocument.h"

#include <gtest/gtest.h>

using namespace trovan;

namespace {
const std::vector<PropertyMap> kTwo = {
    {{"TITLE", {"Uno"}}, {"ARTIST", {"Ana"}}, {"COMMENT", {"c"}}, {"LYRICS", {"letra"}}},
    {{"TITLE", {"Dos"}}, {"ARTIST", {"Ana"}}, {"COMMENT", {"c"}}, {"MOOD", {"x"}}},
};

// Keys as taggers leave them: described comments, links and TXXX frames, Vorbis names with
// spaces, several values, values with blanks at the ends, line breaks of both kinds.
const PropertyMap kTagger = {
    {"TITLE", {"Viejo"}},
    {"COMMENT", {"uno", "dos"}},
    {"COMMENT:ITUNNORM", {" 00000A2B 00000B3C"}},
    {"COMMENT:ITUNSMPB", {" 0000 0210 "}},
    {"URL:USERURL", {"http://example.org"}},
    {"QUODLIBET::USERTEXTDESCRIPTION2", {"a: b"}},
    {"MY KEY", {"\t1", "<varios>", "x\\y"}},
    {"LYRICS:LETRA", {"línea 1\r\nlínea 2"}},
    {"iTunes_CDDB_1", {"raro"}},
};

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

TagPatch cleanPatch(const std::string& text, const std::vector<PropertyMap>& original) {
    auto parsed = TagDocument::parse(text, original);
    EXPECT_TRUE(parsed.problems.empty()) << parsed.problems.front();
    return parsed.patch;
}
} // namespace

// Every key a tagger leaves, alone or in a batch with a file that lacks it, and with the
// document saved with CRLF line ends, reads back as no change at all; so does a batch in
// which these keys differ.
TEST(TagDocument, KeysTaggersLeaveReadBackUnchanged) {
    PropertyMap other = kTagger;
    other["COMMENT:ITUNNORM"] = {" 1"};
    other.erase("URL:USERURL");
    const std::vector<std::vector<PropertyMap>> cases = {
        {kTagger}, {kTagger, {}}, {kTagger, other}};
    for (const auto& files : cases) {
        const std::string doc = TagDocument::render(files);
        EXPECT_TRUE(cleanPatch(doc, files).isEmpty()) << doc;
        std::string crlf;
        for (char c : doc)
            crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
        EXPECT_TRUE(cleanPatch(crlf, files).isEmpty());
    }
    const std::string one = TagDocument::render({kTagger});
    EXPECT_NE(one.find("\nCOMMENT:ITUNSMPB: \\ 0000 0210\\ \n"), std::string::npos) << one;
    EXPECT_NE(one.find("\nMY KEY: \\\t1\nMY KEY: \\<varios>\nMY KEY: x\\\\y\n"), std::string::npos);
    EXPECT_NE(one.find("\nLYRICS:LETRA: línea 1\\r\\nlínea 2\n"), std::string::npos);
    EXPECT_EQ(TagDocument::unescape("a\\\\n\\q\\"), "a\\nq");
    // An emptied value is one empty value, not a removal.
    EXPECT_EQ(cleanPatch(replaced(one, "TITLE: Viejo", "TITLE: "), {kTagger}).changes["TITLE"],
              std::vector<std::string>{""});
    // Changing the title in the batch touches the title only.
    const std::string batch = TagDocument::render({kTagger, other});
    EXPECT_NE(batch.find("\nCOMMENT:ITUNNORM: <varios>\nCOMMENT:ITUNSMPB: "), std::string::npos);
    TagPatch expected;
    expected.changes["TITLE"] = {"Nuevo"};
    EXPECT_EQ(cleanPatch(replaced(batch, "TITLE: Viejo", "TITLE: Nuevo"), {kTagger, other}),
              expected);
}

TEST(TagDocument, EditsBecomeAPatch) {
    const std::string doc = TagDocument::render(kTwo);
    EXPECT_EQ(doc.substr(0, doc.find('\n')), "# Trovan · editando 2 pistas");
    // Common keys first, then the rest; never the lyrics.
    EXPECT_LT(doc.find("COMMENT: c"), doc.find("MOOD: <varios>"));
    EXPECT_EQ(doc.find("LYRICS"), std::string::npos);
    // A <varios> replaced, a line deleted, a lower-case key added, a key with a space, a
    // LYRICS line, CRLF line ends and a second value for a key.
    std::string edited = replaced(doc, "TITLE: <varios>", "TITLE: Mismo");
    edited = replaced(edited, "COMMENT: c\n", "");
    edited = replaced(edited, "ARTIST: Ana\n", "ARTIST: Ana\r\nartist: Bea\r\n");
    edited = replaced(edited, "MOOD: <varios>\n", "mood : Alegre\n");
    edited += "mi clave:no\nLYRICS: nunca\nURL:TIENDA: http://x\n";
    TagPatch patch = cleanPatch(edited, kTwo);
    EXPECT_EQ(patch.changes["TITLE"], std::vector<std::string>{"Mismo"});
    EXPECT_EQ(patch.changes["ARTIST"], (std::vector<std::string>{"Ana", "Bea"}));
    EXPECT_EQ(patch.changes["MOOD"], std::vector<std::string>{"Alegre"});
    EXPECT_EQ(patch.changes["MI CLAVE"], std::vector<std::string>{"no"});
    EXPECT_EQ(patch.changes["URL:TIENDA"], std::vector<std::string>{"http://x"});
    EXPECT_EQ(patch.changes.size(), 5u);
    EXPECT_EQ(patch.remove, std::set<std::string>{"COMMENT"});
}

// What the document cannot write back exactly is named in a comment and never touched,
// even when every other line is deleted.
TEST(TagDocument, KeysItCannotShowAreNamedAndLeftAlone) {
    const std::vector<PropertyMap> files = {{{"TITLE", {"t"}},
                                             {"NUL", {std::string("a\0b", 3)}},
                                             {"BYTES", {"\xff\xfe"}},
                                             {"HAS: COLON", {"v"}},
                                             {"COLON:", {"v"}},
                                             {" BLANK", {"v"}}}};
    const std::string doc = TagDocument::render(files);
    EXPECT_NE(doc.find("\n# Se conservan sin mostrar (este documento no las puede escribir "
                       "tal cual):  BLANK, BYTES, COLON:, HAS: COLON, NUL\n"),
              std::string::npos)
        << doc;
    TagPatch patch = cleanPatch("TITLE: t\n", files);
    EXPECT_TRUE(patch.isEmpty());
    patch = cleanPatch("", files);
    EXPECT_EQ(patch.remove, std::set<std::string>{"TITLE"});
}

// Bad lines are named with their line number, and nothing is written from such a document.
TEST(TagDocument, BadLinesAreReportedWithTheirNumber) {
    const std::vector<PropertyMap> files = {{{"TITLE", {"t"}}, {"NUL", {std::string("\0", 1)}}}};
    const struct {
        std::string text;
        std::string problem;
    } cases[] = {
        {"# c\nTITLE: a\nARTIST: b\nTITLE: c\n",
         "Línea 4: TITLE ya apareció en la línea 2; sus valores van en líneas seguidas"},
        {"TITLE: a\nsin dos puntos\n", "Línea 2: falta «:» entre la clave y el valor"},
        {"TITLE: a\n : b\n", "Línea 2: falta la clave antes de «:»"},
        {"NUL: x\n", "Línea 1: NUL no se puede editar en este documento"},
        {"TITLE: \xc3\x28\n", "Línea 1: el valor de TITLE tiene caracteres que no son texto"},
        {std::string("TITLE: a\0b\n", 11), "Línea 1: el valor de TITLE tiene caracteres que no "
                                           "son texto"},
        {"K\x01: v\n", "Línea 1: la clave tiene caracteres que no son texto"},
        {"TITLE: <varios>\r\nTITLE: x\r\n", "Línea 2: TITLE mezcla <varios> con valores"},
    };
    for (const auto& c : cases) {
        const auto parsed = TagDocument::parse(c.text, files);
        ASSERT_FALSE(parsed.problems.empty()) << c.text;
        EXPECT_EQ(parsed.problems.front(), c.problem);
        EXPECT_TRUE(parsed.patch.isEmpty());
    }
}

// The lyrics document edits the first lyrics; lyrics in other languages stay.
TEST(TagDocument, LyricsPatchReplacesOnlyTheFirstLyrics) {
    using V = std::vector<std::string>;
    const std::tuple<V, std::string, V> cases[] = {
        {{}, "nueva", {"nueva"}},
        {{"vieja", "old"}, "nueva", {"nueva", "old"}},
        {{"vieja", "old"}, "", {"old"}},
    };
    for (const auto& [before, text, after] : cases)
        EXPECT_EQ(TagDocument::lyricsPatch(before, text).changes.at("LYRICS"), after);
    const TagPatch emptied = TagDocument::lyricsPatch({"vieja"}, "");
    EXPECT_EQ(emptied.remove, std::set<std::string>{"LYRICS"});
    EXPECT_TRUE(emptied.changes.empty());
    EXPECT_TRUE(TagDocument::lyricsPatch({"vieja", "old"}, "vieja").isEmpty());
}
