#include "terminal/InputDecoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace trovan;

namespace {

std::string describe(const Key& k) {
    using K = Key::Kind;
    switch (k.kind) {
    case K::char_:
        return "char(" + k.text + ")";
    case K::ctrl:
        return "ctrl(" + k.text + ")";
    case K::function:
        return "F" + std::to_string(k.number);
    case K::enter:
        return "enter";
    case K::tab:
        return "tab";
    case K::backTab:
        return "backTab";
    case K::backspace:
        return "backspace";
    case K::delete_:
        return "delete";
    case K::escape:
        return "escape";
    case K::up:
        return "up";
    case K::down:
        return "down";
    case K::left:
        return "left";
    case K::right:
        return "right";
    case K::shiftUp:
        return "shiftUp";
    case K::shiftDown:
        return "shiftDown";
    case K::home:
        return "home";
    case K::end:
        return "end";
    case K::pageUp:
        return "pageUp";
    case K::pageDown:
        return "pageDown";
    }
    return "?";
}

std::string describe(const InputEvent& e) {
    if (auto* k = std::get_if<Key>(&e)) return describe(*k);
    if (auto* p = std::get_if<Paste>(&e)) return "paste(" + p->text + ")";
    const auto& m = std::get<MouseEvent>(e);
    static const char* kinds[] = {"press", "drag", "release", "scrollUp", "scrollDown"};
    return std::string(kinds[static_cast<int>(m.kind)]) + "@" + std::to_string(m.x) + "," +
           std::to_string(m.y);
}

// Feeds each read in turn and returns the events of all of them.
std::vector<std::string> feed(InputDecoder& d, const std::vector<std::string>& reads) {
    std::vector<std::string> out;
    for (const auto& r : reads)
        for (const auto& e : d.decode(r))
            out.push_back(describe(e));
    return out;
}

std::vector<std::string> feed(const std::vector<std::string>& reads) {
    InputDecoder d;
    return feed(d, reads);
}

using V = std::vector<std::string>;

} // namespace

TEST(InputDecoder, PlainBytesAndControlKeys) {
    EXPECT_EQ(feed({"ab"}), (V{"char(a)", "char(b)"}));
    EXPECT_EQ(feed({"\r\n\t\x7f\x08"}), (V{"enter", "enter", "tab", "backspace", "backspace"}));
    EXPECT_EQ(feed({"\x03\x01\x1a"}), (V{"ctrl(c)", "ctrl(a)", "ctrl(z)"}));
    // Ctrl-space and the 28..31 controls are swallowed.
    EXPECT_EQ(feed({std::string("\0x", 2) + "\x1c\x1f"}), (V{"char(x)"}));
    EXPECT_EQ(feed({"\xC3\xB1\xE2\x82\xAC"}), (V{"char(\xC3\xB1)", "char(\xE2\x82\xAC)"}));
    EXPECT_EQ(feed({""}), V{});
}

TEST(InputDecoder, EscapeIsImmediateAndAltPrefixesAreSplit) {
    EXPECT_EQ(feed({"\x1b"}), (V{"escape"}));
    EXPECT_EQ(feed({"\x1bx"}), (V{"escape", "char(x)"}));
    EXPECT_EQ(feed({"\x1b\x1b[A"}), (V{"escape", "up"}));
}

TEST(InputDecoder, SequencesAndCharactersSplitAcrossReads) {
    InputDecoder d;
    EXPECT_EQ(feed(d, {"\x1b["}), V{});
    EXPECT_EQ(d.pending, "\x1b[");
    EXPECT_EQ(feed(d, {"A"}), (V{"up"}));
    EXPECT_TRUE(d.pending.empty());

    EXPECT_EQ(feed(d, {"\x1bO"}), V{});
    EXPECT_EQ(feed(d, {"Z"}), V{}); // unknown SS3 final: consumed, nothing
    EXPECT_TRUE(d.pending.empty());

    EXPECT_EQ(feed(d, {"\xE2\x82"}), V{});
    EXPECT_EQ(feed(d, {"\xAC"
                       "b"}),
              (V{"char(\xE2\x82\xAC)", "char(b)"}));

    // A four-byte emoji in three reads, then a long CSI sequence one byte at a time.
    EXPECT_EQ(feed(d, {"\xF0", "\x9F\x8E", "\xB5"}), (V{"char(\xF0\x9F\x8E\xB5)"}));
    std::vector<std::string> bytes;
    for (char c : std::string("\x1b[1;2;3;4;5;6~"))
        bytes.emplace_back(1, c);
    bytes.erase(bytes.begin()); // the ESC goes together with "[" so it is not a lone Escape
    bytes[0] = "\x1b[";
    EXPECT_EQ(feed(d, bytes), (V{"home"}));
    EXPECT_TRUE(d.pending.empty());
}

TEST(InputDecoder, CursorAndFunctionKeys) {
    EXPECT_EQ(feed({"\x1b[A\x1b[B\x1b[C\x1b[D\x1b[H\x1b[F\x1b[Z"}),
              (V{"up", "down", "right", "left", "home", "end", "backTab"}));
    EXPECT_EQ(feed({"\x1bOA\x1bOB\x1bOC\x1bOD\x1bOH\x1bOF\x1bOP\x1bOQ\x1bOR\x1bOS"}),
              (V{"up", "down", "right", "left", "home", "end", "F1", "F2", "F3", "F4"}));
    // Shift is bit 0 of (modifier - 1); only Up and Down have shifted forms.
    EXPECT_EQ(feed({"\x1b[1;5A\x1b[1;2A\x1b[1;6B\x1b[1;2C\x1b[1;2D\x1b[?;2A"}),
              (V{"up", "shiftUp", "shiftDown", "right", "left", "shiftUp"}));
    EXPECT_EQ(feed({"\x1b[1~\x1b[3~\x1b[4~\x1b[5~\x1b[6~\x1b[7~\x1b[8~"}),
              (V{"home", "delete", "end", "pageUp", "pageDown", "home", "end"}));
    EXPECT_EQ(feed({"\x1b[11~\x1b[15~\x1b[17~\x1b[21~\x1b[23~\x1b[24~"}),
              (V{"F1", "F5", "F6", "F10", "F11", "F12"}));
}

TEST(InputDecoder, UnknownSequencesAreConsumedSilently) {
    EXPECT_EQ(feed({"\x1b[2~\x1b[16~\x1b[22~\x1b[~\x1b[201~\x1b[99x\x1b[?1;2c"
                    "a"}),
              (V{"char(a)"}));
    // Huge or signed parameters are read without overflow: too big counts as 0.
    EXPECT_EQ(feed({"\x1b[99999999999999999999999~\x1b[-3~\x1b[1;-9223372036854775808A"}),
              (V{"shiftUp"}));
    // A stray continuation byte swallows the byte after it.
    EXPECT_EQ(feed({"\x80"
                    "ab"}),
              (V{"char(\xEF\xBF\xBD)", "char(b)"}));
}

TEST(InputDecoder, MouseReports) {
    EXPECT_EQ(feed({"\x1b[<0;10;5M\x1b[<0;10;5m\x1b[<32;11;5M\x1b[<64;1;1M\x1b[<65;200;60M"}),
              (V{"press@9,4", "release@9,4", "drag@10,4", "scrollUp@0,0", "scrollDown@199,59"}));
    // Right button, modifiers, plain motion and malformed reports give nothing.
    EXPECT_EQ(feed({"\x1b[<2;1;1M\x1b[<4;1;1M\x1b[<35;1;1M\x1b[<0;1M\x1b[<0;1;2;3M"}), V{});
    // Non-numeric pieces are skipped, empty ones dropped.
    EXPECT_EQ(feed({"\x1b[<0;?;10;;5M"}), (V{"press@9,4"}));
    InputDecoder d;
    EXPECT_EQ(feed(d, {"\x1b[<0;1", "0;5", "M"}), (V{"press@9,4"}));
}

TEST(InputDecoder, BracketedPaste) {
    EXPECT_EQ(feed({"\x1b[200~hola\x1b[201~"}), (V{"paste(hola)"}));
    EXPECT_EQ(feed({"\x1b[200~ho", "la\x1b[201~"}), (V{"paste(hola)"}));
    // Inside a paste escape sequences and control bytes are text.
    EXPECT_EQ(feed({"x\x1b[200~a\x1b[A\r\x03", "\x1b[201~y"}),
              (V{"char(x)", "paste(a\x1b[A\r\x03)", "char(y)"}));
    EXPECT_EQ(feed({"\x1b[200~\xFF\x1b[201~"}), (V{"paste(\xEF\xBF\xBD)"}));
    EXPECT_EQ(feed({"\x1b[200~\x1b[201~"}), (V{"paste()"}));
    // An end marker split across reads is not seen: the paste runs on to the next one.
    EXPECT_EQ(feed({"\x1b[200~a\x1b[20", "1~b\x1b[201~c"}), (V{"paste(a\x1b[201~b)", "char(c)"}));
}

TEST(InputDecoder, SameEventsWhateverTheChunking) {
    const std::string input =
        "ab\xC3\xB1\x1b[A\x1b[<0;3;4M\x1bOP\x1b[1;2B\xF0\x9F\x8E\xB5z\x1b[15~\x1bOQ";
    const V whole = feed({input});
    for (std::size_t cut = 1; cut < input.size(); ++cut) {
        if (input[cut - 1] == '\x1b') continue; // a lone ESC at the end of a read is Escape
        EXPECT_EQ(feed({input.substr(0, cut), input.substr(cut)}), whole) << "cut at " << cut;
    }
}
