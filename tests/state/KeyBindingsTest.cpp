// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/KeyBindings.h"

#include <gtest/gtest.h>

using namespace trovan;
using K = Key::Kind;
using A = Action::Kind;

TEST(KeyBindings, EveryKeyOfTheTableLeadsToItsAction) {
    // No key is bound twice.
    std::size_t keys = 0;
    for (const auto& section : KeyBindings::all())
        for (const auto& b : section.bindings)
            keys += b.keys.size();
    EXPECT_EQ(KeyBindings::table().size(), keys);
    for (int d = 0; d <= 9; ++d)
        EXPECT_EQ(KeyBindings::lookup(Key::character(std::to_string(d))),
                  Action::seekFraction(d / 10.0));
    // The rows themselves say what they mean.
    const std::pair<Key, Action> pairs[] = {{Key::character("k"), Action::move(-1)},
                                            {Key::character(" "), A::togglePlay},
                                            {Key::ctrl('c'), A::quit},
                                            {Key::character("L"), A::editLyrics},
                                            {Key::character("+"), Action::volumeBy(0.05f)},
                                            {Key(K::backTab), A::focusPrevious}};
    for (const auto& [key, act] : pairs)
        EXPECT_EQ(KeyBindings::lookup(key), act) << KeyBindings::label(key);
    for (const Key& absent : {Key::character("z"), Key(K::delete_), Key::function(1),
                              Key::ctrl('a'), Key(K::backspace)})
        EXPECT_FALSE(KeyBindings::lookup(absent)) << KeyBindings::label(absent);
}
