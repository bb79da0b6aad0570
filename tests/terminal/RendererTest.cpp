#include "terminal/Renderer.h"
#include "terminal/Palette.h"
#include "text/Text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace trovan;

namespace {

const Style plain = palette::defaultStyle;
const std::string kPlainSgr = "\x1b[0;38;2;198;202;211;48;2;20;22;28m";
const std::string kBegin = "\x1b[?2026h";
const std::string kEnd = "\x1b[?2026l";
const std::string kan = "\xE6\xBC\xA2";

int count(const std::string& hay, const std::string& needle) {
    int n = 0;
    for (auto p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1))
        ++n;
    return n;
}

// A small model of the terminal: interprets the renderer's bytes (cursor moves, SGR,
// clear, private modes, text) so a frame can be checked by what the screen shows.
struct Screen {
    int w, h;
    std::vector<std::string> chars;
    std::vector<Style> styles;
    int x = 0, y = 0;
    Style pen{};

    Screen(int w_, int h_) : w(w_), h(h_), chars(w_ * h_, "?"), styles(w_ * h_) {}

    void apply(const std::string& bytes) {
        std::size_t i = 0;
        while (i < bytes.size()) {
            if (bytes[i] == '\x1b') {
                ASSERT_EQ(bytes[i + 1], '[');
                std::size_t j = i + 2;
                while (!(bytes[j] >= 64 && bytes[j] <= 126))
                    ++j;
                sequence(bytes.substr(i + 2, j - i - 2), bytes[j]);
                i = j + 1;
                continue;
            }
            std::size_t j = bytes.find('\x1b', i);
            if (j == std::string::npos) j = bytes.size();
            std::string run = bytes.substr(i, j - i);
            text::Graphemes g(run);
            std::string_view c;
            while (g.next(c)) {
                ASSERT_TRUE(x < w && y < h) << "text written off screen";
                chars[y * w + x] = std::string(c);
                styles[y * w + x] = pen;
                x += text::charWidth(c);
            }
            i = j;
        }
    }

    void sequence(const std::string& params, char final) {
        if (params.size() && params[0] == '?') return; // modes
        std::vector<int> n;
        std::size_t s = 0;
        while (s <= params.size()) {
            auto e = params.find(';', s);
            if (e == std::string::npos) e = params.size();
            n.push_back(params.substr(s, e - s).empty() ? 0 : std::stoi(params.substr(s, e - s)));
            s = e + 1;
        }
        if (final == 'H') {
            y = n.at(0) - 1;
            x = n.at(1) - 1;
        } else if (final == 'J') {
            std::fill(chars.begin(), chars.end(), " ");
        } else if (final == 'm') {
            pen = Style{};
            for (std::size_t k = 0; k < n.size(); ++k) {
                if (n[k] == 1) pen.bold = true;
                if (n[k] == 4) pen.underline = true;
                if (n[k] == 38 || n[k] == 48) {
                    RGB c{static_cast<uint8_t>(n[k + 2]), static_cast<uint8_t>(n[k + 3]),
                          static_cast<uint8_t>(n[k + 4])};
                    (n[k] == 38 ? pen.fg : pen.bg) = c;
                    k += 4;
                }
            }
        }
    }

    void expectShows(const ScreenBuffer& b) {
        for (int yy = 0; yy < h; ++yy)
            for (int xx = 0; xx < w; ++xx) {
                const Cell& c = b.at(xx, yy);
                if (c.ch.empty()) continue;
                ASSERT_EQ(chars[yy * w + xx], c.ch.str()) << xx << "," << yy;
                ASSERT_EQ(styles[yy * w + xx], c.style) << xx << "," << yy;
            }
    }
};

} // namespace

TEST(Renderer, FirstFrameIsAFullRedraw) {
    Renderer r;
    ScreenBuffer b(2, 1, plain);
    b.text("ab", 0, 0, 2, plain);
    EXPECT_EQ(r.render(b, std::nullopt),
              kBegin + "\x1b[0m\x1b[2J\x1b[1;1H" + kPlainSgr + "ab\x1b[?25l" + kEnd);
    ASSERT_TRUE(r.front.has_value());
    EXPECT_EQ(*r.front, b);
}

TEST(Renderer, IdenticalFramesCostOnlyTheFraming) {
    Renderer r;
    ScreenBuffer b(30, 10, plain);
    b.text("hola", 3, 3, 10, palette::on(palette::accent, true));
    r.render(b, std::nullopt);
    EXPECT_EQ(r.render(b, std::nullopt), kBegin + "\x1b[?25l" + kEnd);
    EXPECT_EQ(r.render(b, CursorPos{4, 10}), kBegin + "\x1b[11;5H\x1b[?25h" + kEnd);
}

TEST(Renderer, OnlyChangedCellsAreWrittenWithFewMoves) {
    Renderer r;
    ScreenBuffer b(10, 5, plain);
    r.render(b, std::nullopt);

    ScreenBuffer one = b;
    one.put("X", 5, 3, plain);
    EXPECT_EQ(r.render(one, std::nullopt), kBegin + "\x1b[4;6H" + kPlainSgr + "X\x1b[?25l" + kEnd);

    ScreenBuffer two = b;
    two.put("A", 0, 0, plain);
    two.put("B", 5, 3, plain);
    std::string out = r.render(two, std::nullopt);
    EXPECT_EQ(count(out, "H"), 2);
    EXPECT_NE(out.find("\x1b[1;1H"), std::string::npos);
    EXPECT_EQ(count(out, "\x1b[0;"), 1); // the style is stated once

    r.render(b, std::nullopt);
    ScreenBuffer adjacent = b;
    adjacent.put("C", 3, 2, plain);
    adjacent.put("D", 4, 2, palette::on(palette::error));
    out = r.render(adjacent, std::nullopt);
    EXPECT_EQ(count(out, "H"), 1);
    EXPECT_EQ(count(out, "\x1b[0;"), 2);

    // After a wide character the cursor is known to be two columns on.
    r.render(b, std::nullopt);
    ScreenBuffer wide = b;
    wide.text(kan + "x", 0, 0, 10, plain);
    out = r.render(wide, std::nullopt);
    EXPECT_EQ(count(out, "H"), 1);
    EXPECT_NE(out.find(kan + "x"), std::string::npos);
}

TEST(Renderer, StyleChangeOnContinuationRedrawsTheWideCharacter) {
    Renderer r;
    ScreenBuffer b(6, 1, plain);
    b.text(kan, 2, 0, 6, plain);
    r.render(b, std::nullopt);
    ScreenBuffer c = b;
    // Restyle only the continuation half.
    c.fill(Rect{3, 0, 1, 1}, palette::on(palette::error), Glyph());
    std::string out = r.render(c, std::nullopt);
    EXPECT_NE(out.find("\x1b[1;3H" + kPlainSgr + kan), std::string::npos) << out;
}

TEST(Renderer, ResizeOrClearedFrontRedrawsEverything) {
    Renderer r;
    ScreenBuffer b(4, 2, plain);
    r.render(b, std::nullopt);
    std::string out = r.render(ScreenBuffer(5, 2, plain), std::nullopt);
    EXPECT_EQ(out.rfind(kBegin + "\x1b[0m\x1b[2J", 0), 0u);
    EXPECT_EQ(count(out, " "), 10);
    r.front.reset();
    out = r.render(ScreenBuffer(5, 2, plain), std::nullopt);
    EXPECT_EQ(count(out, " "), 10);
    EXPECT_NE(out.find("\x1b[2J"), std::string::npos);
    // Degenerate sizes still give a well-formed frame.
    EXPECT_EQ(r.render(ScreenBuffer(0, 0, plain), std::nullopt),
              kBegin + "\x1b[0m\x1b[2J\x1b[?25l" + kEnd);
}

TEST(Renderer, ColoursIn24BitAnd256ColourModes) {
    Renderer r;
    EXPECT_EQ(r.color({122, 162, 247}, true), "38;2;122;162;247");
    EXPECT_EQ(r.color({0, 0, 0}, false), "48;2;0;0;0");
    r.truecolor = false;
    EXPECT_EQ(r.color({20, 22, 28}, false), "48;5;16");
    EXPECT_EQ(r.color({198, 202, 211}, true), "38;5;188");
    EXPECT_EQ(Renderer::cubeIndex({255, 255, 255}), 231);
    EXPECT_EQ(Renderer::cubeIndex({47, 47, 47}), 16);
    EXPECT_EQ(Renderer::cubeIndex({48, 48, 48}), 59);
    EXPECT_EQ(Renderer::cubeIndex({114, 115, 154}), 16 + 36 * 1 + 6 * 2 + 2);
    EXPECT_EQ(Renderer::cubeIndex({155, 195, 235}), 16 + 36 * 3 + 6 * 4 + 5);

    ScreenBuffer b(1, 1, Style{{255, 255, 255}, {20, 22, 28}, true, true});
    EXPECT_EQ(r.render(b, std::nullopt),
              kBegin + "\x1b[0m\x1b[2J\x1b[1;1H\x1b[0;1;4;38;5;231;48;5;16m \x1b[?25l" + kEnd);
}

TEST(Renderer, RandomEditsAlwaysLeaveTheScreenShowingTheFrame) {
    std::mt19937 rng(1234);
    const int w = 17, h = 6;
    const std::vector<std::string> pieces = {"a", "b", kan, "\xF0\x9F\x8E\xB5", "e\xCC\x81", "zz"};
    const std::vector<std::string> narrow = {"a", "b", "e\xCC\x81"};
    const std::vector<Style> styles = {plain, palette::on(palette::accent, true),
                                       palette::on(palette::error),
                                       Style{{1, 2, 3}, {4, 5, 6}, false, true}};
    Renderer r;
    Screen screen(w, h);
    ScreenBuffer frame(w, h, plain);
    for (int step = 0; step < 300; ++step) {
        // Each frame is drawn from the last one with a few edits, as views redraw.
        int edits = static_cast<int>(rng() % 5);
        for (int e = 0; e < edits; ++e) {
            int x = static_cast<int>(rng() % (w + 2)) - 1, y = static_cast<int>(rng() % h);
            const Style& s = styles[rng() % styles.size()];
            switch (rng() % 3) {
            case 0:
                frame.text(pieces[rng() % pieces.size()], x, y, static_cast<int>(rng() % 4), s);
                break;
            case 1:
                frame.put(narrow[rng() % narrow.size()], x, y, s);
                break;
            default:
                frame.fill(Rect{x, y, static_cast<int>(rng() % 4), 1}, s);
                break;
            }
        }
        if (rng() % 50 == 0) r.front.reset();
        screen.apply(r.render(frame, std::nullopt));
        screen.expectShows(frame);
        if (HasFatalFailure()) return;
    }
}
