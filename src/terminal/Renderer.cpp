#include "terminal/Renderer.h"

#include <charconv>
#include <cstring>

namespace trovan {

namespace {

void appendInt(std::string& out, int v) {
    char buf[16];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    (void)ec;
    out.append(buf, end);
}

void appendMove(std::string& out, int x, int y) {
    out += "\x1b[";
    appendInt(out, y + 1);
    out += ';';
    appendInt(out, x + 1);
    out += 'H';
}

int level(int v) {
    if (v < 48) return 0;
    if (v < 115) return 1;
    return (v - 35) / 40;
}

} // namespace

int Renderer::cubeIndex(RGB rgb) {
    return 16 + 36 * level(rgb.r) + 6 * level(rgb.g) + level(rgb.b);
}

void Renderer::appendColor(std::string& out, RGB rgb, bool foreground) const {
    out += foreground ? "38" : "48";
    if (truecolor) {
        out += ";2;";
        appendInt(out, rgb.r);
        out += ';';
        appendInt(out, rgb.g);
        out += ';';
        appendInt(out, rgb.b);
    } else {
        out += ";5;";
        appendInt(out, cubeIndex(rgb));
    }
}

std::string Renderer::color(RGB rgb, bool foreground) const {
    std::string out;
    appendColor(out, rgb, foreground);
    return out;
}

void Renderer::appendStyle(std::string& out, const Style& style) const {
    out += "\x1b[0";
    if (style.bold) out += ";1";
    if (style.underline) out += ";4";
    out += ';';
    appendColor(out, style.fg, true);
    out += ';';
    appendColor(out, style.bg, false);
    out += 'm';
}

std::string Renderer::render(ScreenBuffer buffer, std::optional<CursorPos> cursor) {
    std::string out;
    out.reserve(4096);
    out += "\x1b[?2026h";

    const bool full =
        !front || front->width() != buffer.width() || front->height() != buffer.height();
    if (full) out += "\x1b[0m\x1b[2J";

    const int w = buffer.width(), h = buffer.height();
    const Cell* cells = buffer.cells().data();
    const Cell* old = full ? nullptr : front->cells().data();

    bool cursorKnown = false;
    int cx = 0, cy = 0;
    bool styled = false;
    Style last{};

    for (int y = 0; y < h; ++y) {
        const Cell* row = cells + static_cast<std::ptrdiff_t>(y) * w;
        const Cell* oldRow = old ? old + static_cast<std::ptrdiff_t>(y) * w : nullptr;
        // Cells have no padding, so an untouched row is one memory comparison.
        if (oldRow && std::memcmp(row, oldRow, sizeof(Cell) * static_cast<std::size_t>(w)) == 0)
            continue;
        for (int x = 0; x < w; ++x) {
            const Cell& c = row[x];
            if (c.ch.empty()) continue;
            if (oldRow && c == oldRow[x]) {
                // A wide character whose right half changed style is drawn again.
                const bool tailChanged =
                    x + 1 < w && row[x + 1].ch.empty() && !(row[x + 1] == oldRow[x + 1]);
                if (!tailChanged) continue;
            }
            if (!cursorKnown || cx != x || cy != y) appendMove(out, x, y);
            if (!styled || !(c.style == last)) {
                appendStyle(out, c.style);
                last = c.style;
                styled = true;
            }
            out += c.ch.view();
            cursorKnown = true;
            cx = x + c.ch.width();
            cy = y;
        }
    }

    if (cursor) {
        appendMove(out, cursor->x, cursor->y);
        out += "\x1b[?25h";
    } else {
        out += "\x1b[?25l";
    }
    out += "\x1b[?2026l";
    front = std::move(buffer);
    return out;
}

} // namespace trovan
