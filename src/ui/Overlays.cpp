// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/Overlays.h"

#include "state/KeyBindings.h"
#include "terminal/Palette.h"
#include "text/Text.h"
#include "ui/Drawing.h"
#include "ui/PlayerView.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>

namespace trovan {

namespace {

constexpr RGB boxBg{28, 31, 39};
constexpr Style body{palette::text, boxBg, false, false};
constexpr Style border{palette::accent, boxBg, false, false};
constexpr Style title{palette::white, boxBg, true, false};
constexpr Style secondary{palette::dim, boxBg, false, false};
constexpr Style sectionHeader{palette::accent, boxBg, true, false};
constexpr Style keyLabel{palette::white, boxBg, false, false};
constexpr Style highlight{palette::white, palette::selectionFocused, false, false};

constexpr int helpColumnWidth = 46;

int ceilDiv(int a, int b) {
    return b > 0 ? (a + b - 1) / b : 0;
}

} // namespace

void Overlays::frame(int x, int y, int width, int height, std::string_view titleText,
                     std::string_view footer, ScreenBuffer& buffer) {
    if (width <= 0 || height <= 0) return;
    draw::fillOver(buffer, {x, y, width, height}, body);
    const int right = x + width - 1, bottom = y + height - 1;
    buffer.fill({x + 1, y, width - 2, 1}, border, Glyph("─", 1));
    buffer.fill({x + 1, bottom, width - 2, 1}, border, Glyph("─", 1));
    buffer.fill({x, y + 1, 1, height - 2}, border, Glyph("│", 1));
    buffer.fill({right, y + 1, 1, height - 2}, border, Glyph("│", 1));
    buffer.put(Glyph("╭", 1), x, y, border);
    buffer.put(Glyph("╮", 1), right, y, border);
    buffer.put(Glyph("╰", 1), x, bottom, border);
    buffer.put(Glyph("╯", 1), right, bottom, border);
    if (width < 4 || height < 2) return;
    // Built by appending: GCC 12's -Wrestrict misreads " " + std::string(...) in Release.
    auto padded = [](std::string_view s) {
        std::string out(1, ' ');
        out.append(s).push_back(' ');
        return out;
    };
    buffer.text(padded(titleText), x + 2, y, width - 4, title);
    buffer.text(padded(footer), x + 2, bottom, width - 4, secondary);
}

Rect Overlays::helpBox(int W, int H, int* columnsOut, int* linesOut) {
    const int lines = static_cast<int>(KeyBindings::helpLines().size());
    int c = 1;
    if (W - 6 >= 138)
        c = 3;
    else if (W - 6 > 45)
        c = (W - 6) / helpColumnWidth;
    const int r = ceilDiv(lines, c);
    const int width = std::min(W - 2, 4 + helpColumnWidth * c);
    const int height = std::min(H - 2, r + 3);
    if (columnsOut) *columnsOut = c;
    if (linesOut) *linesOut = r;
    return {(W - width) / 2, (H - height) / 2, width, height};
}

void Overlays::drawHelp(const AppState& state, ScreenBuffer& buffer) {
    int c = 1, r = 0;
    const Rect box = helpBox(buffer.width(), buffer.height(), &c, &r);
    const int v = box.height - 3;
    const int offset = std::clamp(state.helpOffset, 0, std::max(0, r - v));
    frame(box.x, box.y, box.width, box.height, "AYUDA",
          r > v ? "↑↓ desplazar · otra tecla cierra" : "cualquier tecla para cerrar", buffer);

    const auto& lines = KeyBindings::helpLines();
    const int innerRight = box.x + box.width - 1;
    for (int i = 0; i < static_cast<int>(lines.size()); ++i) {
        if (r < 1) break;
        const int k = i / r, j = (i % r) - offset;
        if (j < 0 || j >= v) continue;
        const int x = box.x + 2 + helpColumnWidth * k, y = box.y + 1 + j;
        const int room = std::min(44, innerRight - x); // never past the box's right border
        const HelpLine& line = lines[static_cast<std::size_t>(i)];
        if (line.kind == HelpLine::Kind::header) {
            buffer.text(line.label, x, y, room, sectionHeader);
        } else if (line.kind == HelpLine::Kind::entry) {
            std::string label = line.label;
            if (text::displayWidth(label) >= 15) label += "  ";
            const int written = buffer.text(label, x, y, room, keyLabel);
            const int descX = std::max(written, 15);
            buffer.text(line.description, x + descX, y, std::min(44 - descX, room - descX), body);
        }
    }
}

Rect Overlays::equalizerBox(int W, int H) {
    const int width = std::min(W - 2, 68), height = std::min(H - 2, 20);
    return {(W - width) / 2, (H - height) / 2, width, height};
}

void Overlays::drawEqualizer(const AppState& state, ScreenBuffer& buffer) {
    const Rect box = equalizerBox(buffer.width(), buffer.height());
    const auto& s = state.settings;
    frame(box.x, box.y, box.width, box.height,
          "ECUALIZADOR · " + s.eqPreset + " · " + (s.eqEnabled ? "ON" : "OFF"),
          "←→ banda  ↑↓ ±1 dB  p preset  b on/off  0 plano  Esc cerrar", buffer);
    const int x = box.x, y = box.y;
    // Content stays inside the box on short screens.
    const int top = box.y + 1, bottom = box.y + box.height - 2;
    const int innerRight = box.x + box.width - 1;
    auto inside = [&](int row) { return row >= top && row <= bottom; };
    auto label = [&](std::string_view t, int lx, int row, int maxWidth, Style st) {
        if (inside(row)) buffer.text(t, lx, row, std::min(maxWidth, innerRight - lx), st);
    };

    label("+12", x + 1, y + 2, 3, secondary);
    label("  0", x + 1, y + 8, 3, secondary);
    label("-12", x + 1, y + 14, 3, secondary);

    static const char* const frequencies[] = {"32", "64", "125", "250", "500",
                                              "1k", "2k", "4k",  "8k",  "16k"};
    for (int i = 0; i < 10; ++i) {
        const int bx = x + 6 + 6 * i;
        const float g =
            i < static_cast<int>(s.eqGains.size()) ? s.eqGains[static_cast<std::size_t>(i)] : 0.0f;
        const double half =
            std::isfinite(g) ? std::clamp(static_cast<double>(g) / 2.0, -1e6, 1e6) : 0.0;
        const long level = std::lround(half);
        const bool selected = i == state.eqBand;
        const RGB colour = !s.eqEnabled ? palette::dim : selected ? palette::accent : palette::text;
        for (int r = 6; r >= -6; --r) {
            const int row = y + 2 + (6 - r);
            if (!inside(row)) continue;
            const bool filled =
                (level > 0 && r >= 1 && r <= level) || (level < 0 && r <= -1 && r >= level);
            const char* glyph = filled ? "█" : r == 0 ? "─" : "·";
            const Style st{filled || r == 0 ? colour : palette::rule, boxBg, false, false};
            for (int k = 0; k < 3; ++k)
                if (bx + k < innerRight) buffer.put(Glyph(glyph, 1), bx + k, row, st);
        }
        std::string gain = "0";
        if (g != 0.0f) {
            char b[32];
            std::snprintf(b, sizeof b, "%+.0f", std::isfinite(g) ? static_cast<double>(g) : 0.0);
            gain = b;
        }
        const int gainCount = static_cast<int>(text::graphemeCount(gain));
        label(gain, bx + (3 - gainCount) / 2, y + 15, 4, selected ? title : secondary);
        const std::string freq = frequencies[i];
        label(freq, bx + (3 - static_cast<int>(freq.size())) / 2, y + 16, 4,
              selected ? Style{palette::accent, boxBg, true, false} : secondary);
    }
}

Rect Overlays::rootsBox(int W, int H, int folders) {
    const int width = std::min(W - 4, 80), height = std::min(H - 2, std::max(folders, 1) + 4);
    return {(W - width) / 2, (H - height) / 2, width, height};
}

void Overlays::drawRoots(const AppState& state, ScreenBuffer& buffer) {
    const auto& roots = state.settings.roots;
    const int count = static_cast<int>(roots.size());
    const Rect box = rootsBox(buffer.width(), buffer.height(), count);
    frame(box.x, box.y, box.width, box.height, "CARPETAS DE MÚSICA",
          "a agregar · d quitar · r reindexar · Esc cerrar", buffer);
    if (roots.empty()) {
        buffer.text("No hay carpetas. Pulsa a para agregar una.", box.x + 2, box.y + 2,
                    box.width - 4, secondary);
        return;
    }
    const int listRows = box.height - 4;
    if (listRows < 1) return;
    const int cursor = std::clamp(state.rootsCursor, 0, count - 1);
    const int offset = std::max(0, cursor - listRows + 1);
    for (int i = offset; i < count && i - offset < listRows; ++i) {
        const int y = box.y + 2 + (i - offset);
        Style st = body;
        if (i == cursor) {
            draw::fillOver(buffer, {box.x + 1, y, box.width - 2, 1}, highlight);
            st = highlight;
        }
        buffer.text(roots[static_cast<std::size_t>(i)], box.x + 2, y, box.width - 4, st);
    }
}

Rect Overlays::queueBox(int W, int H) {
    const int width = std::min(W - 4, 100), height = H - 2;
    return {(W - width) / 2, (H - height) / 2, width, height};
}

void Overlays::drawQueue(const AppState& state, double elapsed, ScreenBuffer& buffer) {
    static const PlaybackQueue empty;
    const PlaybackQueue& q = state.queue ? *state.queue : empty;
    const int count = static_cast<int>(q.order.size());
    const Rect box = queueBox(buffer.width(), buffer.height());
    const TrackTable& table = state.index.table();
    auto durationMs = [&](const std::string& path) -> int64_t {
        auto id = table.find(path);
        return id ? table.durationMs(*id) : 0;
    };
    std::string heading = "COLA";
    if (count > 0) {
        heading += count == 1 ? " · 1 canción" : " · " + std::to_string(count) + " canciones";
        double left = 0;
        int from = 0;
        if (q.position) {
            from = *q.position + 1;
            const double current = state.playback.duration > 0
                                       ? state.playback.duration
                                       : static_cast<double>(durationMs(*q.currentPath())) / 1e3;
            left = std::max(0.0, current - elapsed);
        }
        // The owner keeps each entry's length beside it; a queue without them (nothing
        // looked up yet) is measured here.
        const bool kept = q.durations.size() == q.paths.size();
        int64_t ms = 0;
        for (int i = from; i < count; ++i) {
            const auto at = static_cast<std::size_t>(q.order[static_cast<std::size_t>(i)]);
            ms += kept ? std::max<int64_t>(0, q.durations[at]) : durationMs(q.paths[at]);
        }
        left += static_cast<double>(ms) / 1e3;
        heading += " · quedan " + PlayerView::format(left);
    }
    frame(box.x, box.y, box.width, box.height, heading,
          "J/K mover · d quitar · C vaciar · Esc cerrar", buffer);
    if (count == 0) {
        buffer.text("La cola está vacía. Pulsa a sobre una canción para añadirla.", box.x + 2,
                    box.y + 2, box.width - 4, secondary);
        return;
    }
    const int rows = box.height - 4;
    if (rows < 1) return;
    const int cursor = std::clamp(state.queueView.cursor, 0, count - 1);
    const int offset = std::clamp(state.queueView.offset, 0, std::max(0, count - rows));
    const int inner = box.width - 4;
    for (int i = offset; i < count && i - offset < rows; ++i) {
        const int y = box.y + 2 + (i - offset);
        const std::string& path =
            q.paths[static_cast<std::size_t>(q.order[static_cast<std::size_t>(i)])];
        const bool playing = q.position == i;
        Style st = body, dim = secondary;
        if (i == cursor) {
            draw::fillOver(buffer, {box.x + 1, y, box.width - 2, 1}, highlight);
            st = highlight;
            dim = Style{palette::dim, palette::selectionFocused, false, false};
        }
        int x = box.x + 2;
        if (playing) buffer.text("▶", x, y, 1, Style{palette::accent, st.bg, true, false});
        x += 2;
        std::string title, artist;
        int64_t ms = 0;
        if (auto id = table.find(path)) {
            title = std::string(table.displayTitle(*id));
            artist = std::string(table.name(table.artist(*id)));
            ms = table.durationMs(*id);
        } else {
            title = std::filesystem::path(path).filename().string();
        }
        const std::string duration =
            ms > 0 ? PlayerView::format(static_cast<double>(ms) / 1e3) : "";
        const int durationWidth = text::displayWidth(duration);
        const int room = inner - 2 - (durationWidth > 0 ? durationWidth + 1 : 0);
        const int used = buffer.text(title, x, y, room,
                                     playing ? Style{palette::white, st.bg, true, false} : st);
        if (!artist.empty() && room - used > 4)
            buffer.text(" · " + artist, x + used, y, room - used, dim);
        if (durationWidth > 0)
            buffer.text(duration, box.x + box.width - 2 - durationWidth, y, durationWidth, dim);
    }
}

Rect Overlays::formBox(int W, int H, int fields) {
    const int width = std::min(W - 4, 76), height = std::min(H - 2, fields + 4);
    return {(W - width) / 2, (H - height) / 2, width, height};
}

std::optional<CursorPos> Overlays::drawForm(const TagForm& form, ScreenBuffer& buffer) {
    const int count = static_cast<int>(form.fields.size());
    const Rect box = formBox(buffer.width(), buffer.height(), count);
    std::string heading = "EDITAR TAGS";
    if (form.paths.size() == 1)
        heading += " · 1 canción";
    else if (form.paths.size() > 1)
        heading += " · " + std::to_string(form.paths.size()) + " canciones";
    frame(box.x, box.y, box.width, box.height, heading,
          "Tab/↑↓ campo · Enter guardar · Esc cancelar", buffer);
    const int rows = box.height - 4;
    if (rows < 1 || count == 0) return std::nullopt;

    constexpr int labelWidth = 18;
    const int labelX = box.x + 2;
    const int valueX = labelX + labelWidth + 1;
    const int valueWidth = box.x + box.width - 2 - valueX;
    const int focused = std::clamp(form.focused, 0, count - 1);
    const int offset = std::max(0, focused - rows + 1);
    std::optional<CursorPos> cursor;
    for (int i = offset; i < count && i - offset < rows; ++i) {
        const int y = box.y + 2 + (i - offset);
        const TagForm::Field& field = form.fields[static_cast<std::size_t>(i)];
        const bool isFocused = i == focused;
        Style labelStyle = secondary, valueStyle = body;
        if (isFocused) {
            draw::fillOver(buffer, {box.x + 1, y, box.width - 2, 1}, highlight);
            labelStyle = Style{palette::white, palette::selectionFocused, true, false};
            valueStyle = highlight;
        }
        buffer.text(field.label, labelX, y, labelWidth, labelStyle);
        if (field.mixed && field.input.text.empty())
            buffer.text("(varios valores)", valueX, y, valueWidth,
                        Style{palette::dim, valueStyle.bg, false, false});
        if (isFocused) {
            cursor = draw::input(buffer, field.input, valueX, y, valueWidth, valueStyle);
        } else if (!field.input.text.empty()) {
            buffer.text(field.input.text, valueX, y, valueWidth, valueStyle);
        }
    }
    if (cursor && (valueWidth < 1 || cursor->x < 0 || cursor->x >= buffer.width() ||
                   cursor->y < 0 || cursor->y >= buffer.height()))
        return std::nullopt;
    return cursor;
}

std::optional<CursorPos> Overlays::drawPrompt(const AppState& state, PromptKind kind,
                                              const Layout& layout, ScreenBuffer& buffer) {
    std::optional<CursorPos> cursor;
    if (kind == PromptKind::search) {
        const Rect& r = layout.artistsSearch;
        draw::fillOver(buffer, r, palette::defaultStyle);
        const int x = r.x + 1, right = r.x + r.width;
        const int used = buffer.text("/ ", x, r.y, right - x, palette::on(palette::accent));
        cursor = draw::input(buffer, state.input, x + used, r.y, right - (x + used),
                             palette::on(state.searchMiss ? palette::error : palette::text));
        if (right - (x + used) < 1) cursor.reset();
    } else {
        // The bottom line, in place of the progress bar; the cover beside it stays.
        const Rect& line = layout.progress;
        const int y = line.y, x = line.x, right = line.x + line.width;
        draw::fillOver(buffer, line, palette::defaultStyle);
        if (kind == PromptKind::confirm) {
            const int used = buffer.text(state.question + " (s/n) ", x, y, right - x,
                                         palette::on(palette::accent, true));
            cursor = CursorPos{x + used, y};
            if (x + used >= right) cursor.reset();
            return cursor;
        }
        const char* lead = kind == PromptKind::command ? ":" : "Ir a minuto: ";
        const int used = buffer.text(lead, x, y, right - x, palette::on(palette::accent, true));
        cursor = draw::input(buffer, state.input, x + used, y, right - (x + used),
                             palette::on(palette::text));
        if (right - (x + used) < 1) cursor.reset();
    }
    if (cursor && (cursor->x < 0 || cursor->x >= buffer.width() || cursor->y < 0 ||
                   cursor->y >= buffer.height()))
        return std::nullopt;
    return cursor;
}

std::optional<CursorPos> Overlays::draw(const AppState& state, const Layout& layout,
                                        ScreenBuffer& buffer, double elapsed) {
    switch (state.overlay.kind) {
    case Overlay::Kind::none:
        return std::nullopt;
    case Overlay::Kind::prompt:
        return drawPrompt(state, state.overlay.promptKind, layout, buffer);
    case Overlay::Kind::help:
        drawHelp(state, buffer);
        return std::nullopt;
    case Overlay::Kind::equalizer:
        drawEqualizer(state, buffer);
        return std::nullopt;
    case Overlay::Kind::roots:
        drawRoots(state, buffer);
        return std::nullopt;
    case Overlay::Kind::queue:
        drawQueue(state, elapsed, buffer);
        return std::nullopt;
    case Overlay::Kind::tagForm:
        if (state.form) return drawForm(*state.form, buffer);
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace trovan
