// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/TextInput.h"

#include <gtest/gtest.h>

using namespace trovan;
using K = Key::Kind;

namespace {
TextInput at(std::string text, int cursor) {
    TextInput in(std::move(text));
    in.cursor = cursor;
    return in;
}
} // namespace

TEST(TextInput, EditingStaysInBoundsAndConsumesItsKeys) {
    TextInput in;
    for (const Key& k :
         {Key::character("h"), Key::character("l"), Key(K::left), Key::character("o"),
          Key::ctrl('a'), Key(K::left), Key(K::backspace), Key(K::end), Key(K::home),
          Key::ctrl('e'), Key(K::right), Key(K::delete_), Key::character(" ")})
        EXPECT_TRUE(in.handle(k));
    EXPECT_EQ(in, at("hol ", 4));
    EXPECT_EQ(TextInput("add ").cursor, 4);
    for (const Key& k : {Key(K::enter), Key(K::escape), Key(K::tab), Key(K::up), Key(K::pageUp),
                         Key::function(1), Key::ctrl('c'), Key(K::shiftUp)})
        EXPECT_FALSE(in.handle(k)) << static_cast<int>(k.kind);
    EXPECT_EQ(in, at("hol ", 4));
    // A cursor left out of range by hand is brought back before editing.
    in.cursor = 99;
    in.handle(Key(K::backspace));
    EXPECT_EQ(in, at("hol", 3));
}

TEST(TextInput, CtrlWErasesTheWordBeforeTheCursorAndCtrlUEverything) {
    const std::tuple<const char*, int, const char*, int> cases[] = {
        {"add ~/Music  ", 13, "add ", 4},    {"abc", 1, "bc", 0},    {"bc", 0, "bc", 0},
        {"uno dos tres", 7, "uno  tres", 4}, {"uno\tdos", 7, "", 0}, // only spaces separate
    };
    for (const auto& [text, cursor, after, afterCursor] : cases) {
        TextInput in = at(text, cursor);
        EXPECT_TRUE(in.handle(Key::ctrl('w')));
        EXPECT_EQ(in, at(after, afterCursor)) << text;
    }
    TextInput in = at("hola mundo", 3);
    EXPECT_TRUE(in.handle(Key::ctrl('u')));
    EXPECT_EQ(in, at("", 0));
}

TEST(TextInput, ClustersAreSinglePositions) {
    const std::string e = "e\xCC\x81"; // e + combining acute
    const std::string family =
        "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7";
    const std::string flag = "\xF0\x9F\x87\xAA\xF0\x9F\x87\xB8";
    TextInput in;
    in.insert("caf" + e + family + flag);
    EXPECT_EQ(in.cursor, 6);
    EXPECT_EQ(in.length(), 6);
    in.handle(Key(K::backspace));
    EXPECT_EQ(in.text, "caf" + e + family);
    in.handle(Key(K::left));
    in.handle(Key(K::backspace));
    EXPECT_EQ(in, at("caf" + family, 3));
    in.handle(Key(K::delete_));
    EXPECT_EQ(in.text, "caf");
    // A combining mark typed on its own joins the letter before it.
    in.handle(Key::character("\xCC\x81"));
    EXPECT_EQ(in, at("caf\xCC\x81", 3));
    EXPECT_EQ(in.beforeCursor(), "caf\xCC\x81");
    in = TextInput("a " + e + e);
    in.handle(Key::ctrl('w'));
    EXPECT_EQ(in.text, "a ");
}

TEST(TextInput, PastedLineBreaksDisappear) {
    TextInput in = at("xy", 1);
    in.insert("a\nb");
    EXPECT_EQ(in, at("xaby", 3));
    in.insert("\r\n\n");
    EXPECT_EQ(in, at("xaby", 3));
}
