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

TEST(TextInput, TypingAndCursorMovement) {
    TextInput in;
    EXPECT_TRUE(in.handle(Key::character("h")));
    EXPECT_TRUE(in.handle(Key::character("l")));
    EXPECT_TRUE(in.handle(Key(K::left)));
    EXPECT_TRUE(in.handle(Key::character("o")));
    EXPECT_TRUE(in.handle(Key::character(" ")));
    EXPECT_EQ(in.text, "ho l");
    EXPECT_EQ(in.cursor, 3);
    EXPECT_TRUE(in.handle(Key::ctrl('a')));
    EXPECT_EQ(in.cursor, 0);
    EXPECT_TRUE(in.handle(Key(K::left)));
    EXPECT_EQ(in.cursor, 0);
    EXPECT_TRUE(in.handle(Key(K::end)));
    EXPECT_EQ(in.cursor, 4);
    EXPECT_TRUE(in.handle(Key(K::right)));
    EXPECT_EQ(in.cursor, 4);
    EXPECT_TRUE(in.handle(Key(K::home)));
    EXPECT_TRUE(in.handle(Key::ctrl('e')));
    EXPECT_EQ(in.cursor, 4);
    EXPECT_EQ(TextInput("add ").cursor, 4);
}

TEST(TextInput, DeletionAtTheEdgesIsStillConsumed) {
    TextInput in = at("abc", 0);
    EXPECT_TRUE(in.handle(Key(K::backspace)));
    EXPECT_EQ(in.text, "abc");
    in.cursor = 3;
    EXPECT_TRUE(in.handle(Key(K::delete_)));
    EXPECT_EQ(in.text, "abc");
    in.cursor = 1;
    EXPECT_TRUE(in.handle(Key(K::delete_)));
    EXPECT_EQ(in.text, "ac");
    EXPECT_TRUE(in.handle(Key(K::backspace)));
    EXPECT_EQ(in.text, "c");
    EXPECT_EQ(in.cursor, 0);
}

TEST(TextInput, CtrlWAndCtrlU) {
    TextInput in = at("add ~/Music  ", 13);
    EXPECT_TRUE(in.handle(Key::ctrl('w')));
    EXPECT_EQ(in.text, "add ");
    EXPECT_EQ(in.cursor, 4);
    in = at("abc", 1);
    in.handle(Key::ctrl('w'));
    EXPECT_EQ(in.text, "bc");
    EXPECT_EQ(in.cursor, 0);
    in.handle(Key::ctrl('w')); // at the start: nothing
    EXPECT_EQ(in.text, "bc");
    in = at("uno dos tres", 7); // after "dos"; what follows stays
    in.handle(Key::ctrl('w'));
    EXPECT_EQ(in.text, "uno  tres");
    EXPECT_EQ(in.cursor, 4);
    in = at("uno\tdos", 7); // only U+0020 separates words
    in.handle(Key::ctrl('w'));
    EXPECT_EQ(in.text, "");
    in = at("hola mundo", 3);
    EXPECT_TRUE(in.handle(Key::ctrl('u')));
    EXPECT_EQ(in.text, "");
    EXPECT_EQ(in.cursor, 0);
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
    EXPECT_EQ(in.text, "caf" + family);
    EXPECT_EQ(in.cursor, 3);
    in.handle(Key(K::delete_));
    EXPECT_EQ(in.text, "caf");
    // A combining mark typed on its own joins the letter before it.
    in.handle(Key::character("\xCC\x81"));
    EXPECT_EQ(in.text, "caf\xCC\x81");
    EXPECT_EQ(in.cursor, 3);
    EXPECT_EQ(in.beforeCursor(), "caf\xCC\x81");
    in = TextInput("a " + e + e);
    in.handle(Key::ctrl('w'));
    EXPECT_EQ(in.text, "a ");
}

TEST(TextInput, PastedLineBreaksDisappear) {
    TextInput in = at("xy", 1);
    in.insert("a\nb");
    EXPECT_EQ(in.text, "xaby");
    EXPECT_EQ(in.cursor, 3);
    in.insert("\r\n\n");
    EXPECT_EQ(in.text, "xaby");
    EXPECT_EQ(in.cursor, 3);
}

TEST(TextInput, KeysThatAreNotEditing) {
    TextInput in = at("abc", 2);
    for (const Key& k : {Key(K::enter), Key(K::escape), Key(K::tab), Key(K::backTab), Key(K::up),
                         Key(K::down), Key(K::pageUp), Key(K::pageDown), Key::function(1),
                         Key::ctrl('c'), Key::ctrl('s'), Key(K::shiftUp)})
        EXPECT_FALSE(in.handle(k)) << static_cast<int>(k.kind);
    EXPECT_EQ(in, at("abc", 2));
    // A cursor left out of range by hand is brought back before editing.
    in.cursor = 99;
    in.handle(Key::character("d"));
    EXPECT_EQ(in.text, "abcd");
    EXPECT_EQ(in.cursor, 4);
}
