#pragma once

#include "terminal/ScreenBuffer.h"
#include "terminal/Style.h"

#include <optional>
#include <string>

namespace trovan {

// Screen position of the text cursor.
struct CursorPos {
    int x = 0;
    int y = 0;

    bool operator==(const CursorPos&) const = default;
};

// Turns frames into the bytes that bring the terminal from the previous frame to the
// new one: only changed cells, few cursor moves, a style restated only when it changes,
// all inside a synchronized update.
class Renderer {
public:
    // The frame last rendered; clear it to force a full redraw.
    std::optional<ScreenBuffer> front;
    // 24-bit colour sequences, else indices of the 256-colour cube.
    bool truecolor = true;

    // Bytes for this frame; `buffer` becomes the new front.
    std::string render(ScreenBuffer buffer, std::optional<CursorPos> cursor);

    // SGR parameters for one colour, e.g. "38;2;122;162;247" or "48;5;16".
    std::string color(RGB rgb, bool foreground) const;

    // Index in the 6x6x6 cube of the 256-colour palette.
    static int cubeIndex(RGB rgb);

private:
    void appendColor(std::string& out, RGB rgb, bool foreground) const;
    void appendStyle(std::string& out, const Style& style) const;
};

} // namespace trovan
