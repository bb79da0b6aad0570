// SPDX-License-Identifier: GPL-3.0-or-later
// Random drawing with hostile text into a small screen, rendered after every few
// operations: nothing may crash, text() never reports more columns than allowed, and
// the renderer's bytes are valid UTF-8 whose only control bytes are its own CSI
// sequences.

#include "terminal/Palette.h"
#include "terminal/Renderer.h"
#include "terminal/ScreenBuffer.h"
#include "text/Text.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace trovan;

namespace {

void checkOutput(const std::string& out) {
    std::string visible;
    for (std::size_t i = 0; i < out.size();) {
        const auto c = static_cast<unsigned char>(out[i]);
        if (c == 0x1b) {
            if (i + 1 >= out.size() || out[i + 1] != '[') std::abort();
            std::size_t j = i + 2;
            while (j < out.size() && !(out[j] >= 0x40 && out[j] <= 0x7e))
                ++j;
            if (j == out.size()) std::abort();
            i = j + 1;
            continue;
        }
        if (c < 0x20 || c == 0x7f) std::abort();
        visible += out[i++];
    }
    if (!text::isValidUtf8(visible)) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const int w = in.ConsumeIntegralInRange(0, 24), h = in.ConsumeIntegralInRange(0, 6);
    Renderer r;
    r.truecolor = in.ConsumeBool();
    ScreenBuffer b(w, h, palette::defaultStyle);
    while (in.remaining_bytes() > 0) {
        Style s{{in.ConsumeIntegral<std::uint8_t>(), in.ConsumeIntegral<std::uint8_t>(), 0},
                {0, in.ConsumeIntegral<std::uint8_t>(), in.ConsumeIntegral<std::uint8_t>()},
                in.ConsumeBool(),
                in.ConsumeBool()};
        // Mostly near the screen, sometimes anywhere at all.
        const int x =
            in.ConsumeBool() ? in.ConsumeIntegral<int>() : in.ConsumeIntegralInRange(-30, 30);
        const int y = in.ConsumeIntegralInRange(-2, 8);
        switch (in.ConsumeIntegralInRange(0, 4)) {
        case 0: {
            const int maxWidth = in.ConsumeIntegralInRange(-2, 40);
            const int used = b.text(in.ConsumeRandomLengthString(32), x, y, maxWidth, s);
            if (used < 0 || used > std::max(maxWidth, 0)) std::abort();
            break;
        }
        case 1: {
            // put() is given single printable characters, as the views do.
            std::string chunk = in.ConsumeRandomLengthString(8);
            text::Graphemes g(chunk);
            std::string_view c;
            if (g.next(c) && text::charWidth(c) > 0) b.put(c, x, y, s);
            break;
        }
        case 2:
            b.fill(Rect{x, y, in.ConsumeIntegral<int>(), in.ConsumeIntegral<int>()}, s);
            break;
        case 3:
            checkOutput(r.render(b, std::nullopt));
            break;
        default:
            r.front.reset();
            break;
        }
    }
    checkOutput(r.render(b, CursorPos{1, 1}));
    return 0;
}
