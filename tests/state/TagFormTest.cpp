#include "state/TagForm.h"

#include <gtest/gtest.h>

using namespace trovan;

namespace {
const TagForm::Field& field(const TagForm& f, const std::string& key) {
    for (const auto& x : f.fields)
        if (x.key == key) return x;
    throw std::runtime_error("no field " + key);
}
TagForm::Field& field(TagForm& f, const std::string& key) {
    return const_cast<TagForm::Field&>(field(static_cast<const TagForm&>(f), key));
}
std::vector<PropertyMap> threeTracks() {
    return {
        {{"TITLE", {"Uno"}}, {"ALBUM", {"Disco"}}, {"GENRE", {"Rock", "Pop"}}},
        {{"TITLE", {"Dos"}}, {"ALBUM", {"Disco"}}, {"GENRE", {"Rock", "Pop"}}},
        {{"TITLE", {"Tres"}}, {"ALBUM", {"Disco"}}, {"GENRE", {"Rock", "Pop"}}},
    };
}
} // namespace

TEST(TagForm, TenFieldsWithCommonAndMixedValues) {
    TagForm f({"/a", "/b", "/c"}, threeTracks());
    std::vector<std::string> labels;
    for (const auto& x : f.fields)
        labels.push_back(x.key + "=" + x.label);
    EXPECT_EQ(labels, (std::vector<std::string>{
                          "TITLE=Título", "ARTIST=Artista", "ALBUMARTIST=Artista del álbum",
                          "ALBUM=Álbum", "DATE=Año", "TRACKNUMBER=Pista", "DISCNUMBER=Disco",
                          "GENRE=Género", "COMPOSER=Compositor", "COMMENT=Comentario"}));
    EXPECT_EQ(f.focused, 0);
    EXPECT_TRUE(field(f, "TITLE").mixed);
    EXPECT_EQ(field(f, "TITLE").input.text, "");
    EXPECT_FALSE(field(f, "ALBUM").mixed);
    EXPECT_EQ(field(f, "ALBUM").input, TextInput("Disco"));
    EXPECT_EQ(field(f, "GENRE").input.text, "Rock; Pop");
    EXPECT_EQ(field(f, "ARTIST").input.text, "");
    EXPECT_FALSE(field(f, "ARTIST").mixed);
    EXPECT_TRUE(f.patch().isEmpty());

    // A value missing from one file but present in others is mixed.
    TagForm g({"/a", "/b"}, {{{"ARTIST", {"X"}}}, {}});
    EXPECT_TRUE(field(g, "ARTIST").mixed);
    // No files: nothing to show.
    TagForm none({}, {});
    EXPECT_EQ(none.fields.size(), 10u);
    EXPECT_FALSE(field(none, "TITLE").mixed);
}

TEST(TagForm, PatchHoldsOnlyWhatChanged) {
    TagForm f({"/a", "/b", "/c"}, threeTracks());
    field(f, "TITLE").input = TextInput("Mismo título");
    field(f, "ALBUM").input.clear();
    field(f, "ARTIST").input = TextInput("  Rock  ");
    field(f, "COMPOSER").input = TextInput(" \t ");
    field(f, "GENRE").input = TextInput("Rock; Pop; Jazz");
    TagPatch p = f.patch();
    EXPECT_EQ(p.changes,
              (std::map<std::string, std::vector<std::string>>{{"ARTIST", {"Rock"}},
                                                               {"GENRE", {"Rock; Pop; Jazz"}},
                                                               {"TITLE", {"Mismo título"}}}));
    EXPECT_EQ(p.remove, (std::set<std::string>{"ALBUM", "COMPOSER"}));

    // Typing and erasing back to the original is no change.
    TagForm g({"/a"}, {{{"DATE", {"1999"}}}});
    field(g, "DATE").input.insert("0");
    field(g, "DATE").input.backspace();
    EXPECT_TRUE(g.patch().isEmpty());
}
