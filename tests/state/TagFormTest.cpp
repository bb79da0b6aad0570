// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/TagForm.h"

#include <gtest/gtest.h>

using namespace trovan;

namespace {
TextInput& input(TagForm& f, const std::string& key) {
    for (auto& x : f.fields)
        if (x.key == key) return x.input;
    throw std::runtime_error("no field " + key);
}
} // namespace

// Labels, order and shared or mixed values show in the form's golden frames.
TEST(TagForm, PatchHoldsOnlyWhatChanged) {
    const std::map<std::string, std::vector<std::string>> shared = {{"ALBUM", {"Disco"}},
                                                                    {"GENRE", {"Rock", "Pop"}}};
    TagForm f({"/a", "/b", "/c"}, {shared, shared, shared});
    EXPECT_TRUE(f.patch().isEmpty());
    input(f, "TITLE") = TextInput("Mismo título");
    input(f, "ALBUM").clear();
    input(f, "ARTIST") = TextInput("  Rock  ");
    input(f, "COMPOSER") = TextInput(" \t ");
    input(f, "GENRE") = TextInput("Rock; Pop; Jazz");
    const TagPatch p = f.patch();
    EXPECT_EQ(p.changes,
              (std::map<std::string, std::vector<std::string>>{{"ARTIST", {"Rock"}},
                                                               {"GENRE", {"Rock; Pop; Jazz"}},
                                                               {"TITLE", {"Mismo título"}}}));
    EXPECT_EQ(p.remove, (std::set<std::string>{"ALBUM", "COMPOSER"}));

    // Typing and erasing back to the original is no change; a value one file lacks is mixed.
    TagForm g({"/a", "/b"}, {{{"DATE", {"1999"}}}, {}});
    input(g, "DATE").insert("0");
    input(g, "DATE").backspace();
    EXPECT_TRUE(g.patch().isEmpty());
    for (const auto& field : g.fields)
        EXPECT_EQ(field.mixed, field.key == "DATE") << field.key;
}
