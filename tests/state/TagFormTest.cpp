#include "state/TagForm.h"

#include <gtest/gtest.h>

using namespace trovan;

namespace {
TagForm::Field& field(TagForm& f, const std::string& key) {
    for (auto& x : f.fields)
        if (x.key == key) return x;
    throw std::runtime_error("no field " + key);
}
TagForm threeTracks() {
    return TagForm({"/a", "/b", "/c"},
                   {{{"TITLE", {"Uno"}}, {"ALBUM", {"Disco"}}, {"GENRE", {"Rock", "Pop"}}},
                    {{"TITLE", {"Dos"}}, {"ALBUM", {"Disco"}}, {"GENRE", {"Rock", "Pop"}}},
                    {{"TITLE", {"Tres"}}, {"ALBUM", {"Disco"}}, {"GENRE", {"Rock", "Pop"}}}});
}
} // namespace

// Labels, order and shared or mixed values show in the form's golden frames.
TEST(TagForm, AValueMissingFromOneFileIsMixed) {
    TagForm g({"/a", "/b"}, {{{"ARTIST", {"X"}}}, {}});
    EXPECT_TRUE(field(g, "ARTIST").mixed);
    EXPECT_FALSE(field(g, "TITLE").mixed);
}

TEST(TagForm, PatchHoldsOnlyWhatChanged) {
    TagForm f = threeTracks();
    EXPECT_TRUE(f.patch().isEmpty());
    field(f, "TITLE").input = TextInput("Mismo título");
    field(f, "ALBUM").input.clear();
    field(f, "ARTIST").input = TextInput("  Rock  ");
    field(f, "COMPOSER").input = TextInput(" \t ");
    field(f, "GENRE").input = TextInput("Rock; Pop; Jazz");
    const TagPatch p = f.patch();
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
