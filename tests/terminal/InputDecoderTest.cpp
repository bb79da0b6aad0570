// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/InputDecoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace trovan;

namespace {

using V = std::vector<std::string>;

std::string describe(const InputEvent& e) {
    static const char* keys[] = {"char",    "ctrl",      "F",      "enter",   "tab",
                                 "backTab", "backspace", "delete", "escape",  "up",
                                 "down",    "left",      "right",  "shiftUp", "shiftDown",
                                 "home",    "end",       "pageUp", "pageDown"};
    static const char* mice[] = {"press", "drag", "release", "scrollUp", "scrollDown"};
    if (auto* k = std::get_if<Key>(&e))
        return keys[static_cast<int>(k->kind)] + (k->kind == Key::Kind::function
                                                      ? std::to_string(k->number)
                                                  : k->text.empty() ? std::string()
                                                                    : "(" + k->text + ")");
    if (auto* p = std::get_if<Paste>(&e)) return "paste(" + p->text + ")";
    const auto& m = std::get<MouseEvent>(e);
    // Appended, not "@" + std::string: GCC 12's -Wrestrict misreads that in Release.
    std::string out = mice[static_cast<int>(m.kind)];
    out.append("@").append(std::to_string(m.x)).append(",").append(std::to_string(m.y));
    return out;
}

// Feeds each read in turn to one decoder and returns the events of all of them.
V feed(const V& reads) {
    InputDecoder d;
    V out;
    for (const auto& r : reads)
        for (const auto& e : d.decode(r))
            out.push_back(describe(e));
    return out;
}

} // namespace

TEST(InputDecoder, KeysMouseReportsAndUnknownSequences) {
    const std::pair<std::string, V> cases[] = {
        {"a\xC3\xB1\xE2\x82\xAC", {"char(a)", "char(\xC3\xB1)", "char(\xE2\x82\xAC)"}},
        {"\r\n\t\x7f\x08", {"enter", "enter", "tab", "backspace", "backspace"}},
        {"\x03\x01\x1a", {"ctrl(c)", "ctrl(a)", "ctrl(z)"}},
        {std::string("\0x\x1c\x1f", 4), {"char(x)"}}, // Ctrl-space and 28..31 are swallowed
        // A lone ESC is Escape at once; ESC before anything but [ or O is not Alt.
        {"\x1b", {"escape"}},
        {"\x1bx\x1b\x1b[A", {"escape", "char(x)", "escape", "up"}},
        {"\x1b[A\x1b[B\x1b[C\x1b[D\x1b[H\x1b[F\x1b[Z",
         {"up", "down", "right", "left", "home", "end", "backTab"}},
        {"\x1bOA\x1bOB\x1bOD\x1bOH\x1bOF\x1bOP\x1bOS",
         {"up", "down", "left", "home", "end", "F1", "F4"}},
        // Shift is bit 0 of (modifier - 1); only Up and Down have shifted forms.
        {"\x1b[1;5A\x1b[1;2A\x1b[1;6B\x1b[1;2C\x1b[?;2A",
         {"up", "shiftUp", "shiftDown", "right", "shiftUp"}},
        {"\x1b[1~\x1b[3~\x1b[4~\x1b[5~\x1b[6~\x1b[7~\x1b[8~",
         {"home", "delete", "end", "pageUp", "pageDown", "home", "end"}},
        {"\x1b[11~\x1b[15~\x1b[17~\x1b[21~\x1b[23~\x1b[24~",
         {"F1", "F5", "F6", "F10", "F11", "F12"}},
        // Unknown sequences are consumed silently; stray paste ends too.
        {"\x1b[2~\x1b[16~\x1b[22~\x1b[~\x1b[201~\x1b[99x\x1b[?1;2c\x1bOZa", {"char(a)"}},
        // Huge or signed parameters are read without overflow: too big counts as 0.
        {"\x1b[99999999999999999999999~\x1b[-3~\x1b[1;-9223372036854775808A", {"shiftUp"}},
        // A stray continuation byte is one U+FFFD and swallows the byte after it.
        {std::string(1, '\x80') + "ab", {"char(\xEF\xBF\xBD)", "char(b)"}},
        {"\x1b[<0;10;5M\x1b[<0;10;5m\x1b[<32;11;5M\x1b[<64;1;1M\x1b[<65;200;60M",
         {"press@9,4", "release@9,4", "drag@10,4", "scrollUp@0,0", "scrollDown@199,59"}},
        // Right button, modifiers, plain motion and malformed reports give nothing.
        {"\x1b[<2;1;1M\x1b[<4;1;1M\x1b[<35;1;1M\x1b[<0;1M\x1b[<0;1;2;3M", {}},
        // Non-numeric pieces are skipped, empty ones dropped.
        {"\x1b[<0;?;10;;5M", {"press@9,4"}},
    };
    for (const auto& [input, events] : cases)
        EXPECT_EQ(feed({input}), events) << testing::PrintToString(input);
}

TEST(InputDecoder, BracketedPasteAcrossReads) {
    EXPECT_EQ(feed({"\x1b[200~ho", "la\x1b[201~"}), (V{"paste(hola)"}));
    // Inside a paste escape sequences and control bytes are text; bad UTF-8 is repaired.
    EXPECT_EQ(feed({"x\x1b[200~a\x1b[A\r\x03\xFF", "\x1b[201~y"}),
              (V{"char(x)", "paste(a\x1b[A\r\x03\xEF\xBF\xBD)", "char(y)"}));
    EXPECT_EQ(feed({"\x1b[200~\x1b[201~"}), (V{"paste()"}));
    // An end marker split anywhere across reads still ends the paste; a near-miss of it
    // stays pasted text.
    const std::string marker = "\x1b[201~";
    for (std::size_t cut = 1; cut < marker.size(); ++cut)
        EXPECT_EQ(feed({"\x1b[200~a" + marker.substr(0, cut), marker.substr(cut) + "q"}),
                  (V{"paste(a)", "char(q)"}))
            << "cut " << cut;
    EXPECT_EQ(feed({"\x1b[200~a\x1b[20", "2~\x1b[201~q"}), (V{"paste(a\x1b[202~)", "char(q)"}));
}

TEST(InputDecoder, PasteIsCappedAndKeysFollowIt) {
    // Over the cap, in many reads: the paste keeps whole characters up to the cap and
    // the key after the end marker still arrives.
    InputDecoder d;
    std::vector<InputEvent> events = d.decode("\x1b[200~");
    // One byte short of the cap, then a two-byte character that does not fit.
    for (std::size_t left = InputDecoder::kPasteLimit - 1; left > 0;) {
        const std::size_t n = std::min<std::size_t>(left, 4095);
        d.decode(std::string(n, 'x'));
        left -= n;
    }
    d.decode("\xC3\xB1\xC3\xB1");
    events = d.decode("\x1b[201~q");
    ASSERT_EQ(events.size(), 2u);
    const auto& text = std::get<Paste>(events[0]).text;
    EXPECT_EQ(text, std::string(InputDecoder::kPasteLimit - 1, 'x'));
    EXPECT_EQ(describe(events[1]), "char(q)");
    EXPECT_TRUE(d.pending.empty());
}
