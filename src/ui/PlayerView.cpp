// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/PlayerView.h"

#include "terminal/Palette.h"
#include "text/Text.h"
#include "ui/Drawing.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace trovan {

namespace {
// Characters of an ASCII string such as a formatted time.
int chars(const std::string& s) {
    return static_cast<int>(s.size());
}
} // namespace

std::string PlayerView::format(double seconds) {
    // Far beyond any track; keeps the integer conversion defined.
    constexpr double limit = 1e12;
    const double clamped = std::isnan(seconds) ? 0.0 : std::clamp(seconds, 0.0, limit);
    const long long s = static_cast<long long>(clamped);
    char out[48];
    if (s < 3600)
        std::snprintf(out, sizeof out, "%lld:%02lld", s / 60, s % 60);
    else
        std::snprintf(out, sizeof out, "%lld:%02lld:%02lld", s / 3600, (s % 3600) / 60, s % 60);
    return out;
}

void PlayerView::draw(double elapsed, const AppState& state, const Layout& layout,
                      ScreenBuffer& buffer) {
    buffer.fill({layout.header.x, layout.playerRule, layout.header.width, 1},
                palette::on(palette::rule), Glyph("─", 1));
    const CoverArt* cover = state.cover ? &*state.cover : nullptr;
    const Rect& r = layout.cover;
    if (const auto* image = draw::coverImage(cover, state.graphics, r.width, r.height))
        buffer.placeImage(*image, r, r, palette::defaultStyle);
    else
        drawCover(cover ? cover->pixels : std::nullopt, r, buffer);
    drawInfo(state, layout.nowPlaying, buffer);
    drawButtons(state, layout, buffer);
    drawProgress(elapsed, state, layout, buffer);
}

void PlayerView::drawCover(const std::optional<std::vector<RGB>>& pixels, Rect rect,
                           ScreenBuffer& buffer) {
    if (rect.height <= 0 || rect.width <= 0) return;
    if (pixels && pixels->size() == static_cast<std::size_t>(rect.width) * 2 * rect.height) {
        for (int cy = 0; cy < rect.height; ++cy)
            for (int cx = 0; cx < rect.width; ++cx) {
                const RGB top = (*pixels)[static_cast<std::size_t>(2 * cy * rect.width + cx)];
                const RGB bottom =
                    (*pixels)[static_cast<std::size_t>((2 * cy + 1) * rect.width + cx)];
                buffer.put(Glyph("▀", 1), rect.x + cx, rect.y + cy,
                           Style{top, bottom, false, false});
            }
        return;
    }
    buffer.fill(rect, Style{palette::text, palette::selection, false, false});
    buffer.put(Glyph("♪", 1), rect.x + rect.width / 2, rect.y + rect.height / 2,
               Style{palette::dim, palette::selection, false, false});
}

void PlayerView::drawInfo(const AppState& state, Rect r, ScreenBuffer& buffer) {
    std::string volume = "Silencio";
    if (!state.muted) {
        const float v = state.settings.volume * 100.0f; // float maths, as the setting is stored
        const long long percent =
            std::isfinite(v) ? static_cast<long long>(std::clamp(v, -1e9f, 1e9f)) : 0;
        volume = "Vol " + std::to_string(percent) + "%";
    }
    const bool eqOn = state.settings.eqEnabled;
    const std::string eq = eqOn ? "EQ " + state.settings.eqPreset : "EQ off";
    // The loudness gain in use, such as "RG álbum −6.2 dB".
    const std::string gain = state.playback.track ? state.playback.gain.label() : std::string();
    const int w =
        std::max({text::displayWidth(volume), text::displayWidth(eq), text::displayWidth(gain)});
    const int lw = r.width - w - 2;
    const int right = r.x + r.width;
    buffer.text(volume, right - text::displayWidth(volume), r.y, w, palette::on(palette::dim));
    buffer.text(eq, right - text::displayWidth(eq), r.y + 1, w,
                palette::on(eqOn ? palette::accent : palette::dim));
    if (!gain.empty())
        buffer.text(gain, right - text::displayWidth(gain), r.y + 2, w, palette::on(palette::dim));

    if (const auto& track = state.playback.track) {
        buffer.text(track->displayTitle(), r.x, r.y, lw, palette::on(palette::white, true));
        std::string line = track->displayArtist() + " · " +
                           (track->album.empty() ? std::string(kUnknownAlbum) : track->album);
        if (track->year >= 1) line += " (" + std::to_string(track->year) + ")";
        buffer.text(line, r.x, r.y + 1, lw, palette::on(palette::text));
        if (state.playback.format)
            buffer.text(state.playback.format->summary(), r.x, r.y + 2, lw,
                        palette::on(palette::dim));
    } else {
        buffer.text("Nada en reproducción", r.x, r.y, lw, palette::on(palette::white, true));
        buffer.text("Elige una canción y pulsa Enter", r.x, r.y + 1, lw, palette::on(palette::dim));
    }
}

void PlayerView::drawButtons(const AppState& state, const Layout& layout, ScreenBuffer& buffer) {
    const bool focused = state.focus == Focus::player;
    for (PlayerButton button : kPlayerButtons) {
        auto it = layout.buttons.find(button);
        if (it == layout.buttons.end()) continue;
        const Rect& r = it->second;
        const RGB bg = focused && state.playerButton == button ? palette::selectionFocused
                                                               : palette::background;
        const char* glyph = "";
        RGB fg = palette::text;
        bool bold = false;
        switch (button) {
        case PlayerButton::shuffle:
            glyph = "⇄";
            fg = state.settings.shuffle ? palette::accent : palette::dim;
            break;
        case PlayerButton::previous:
            glyph = "◀◀";
            break;
        case PlayerButton::playPause:
            glyph = state.playback.isPlaying ? "❚❚" : "▶";
            fg = palette::accent;
            bold = true;
            break;
        case PlayerButton::next:
            glyph = "▶▶";
            break;
        case PlayerButton::repeatMode:
            glyph = state.settings.repeatMode == RepeatMode::one ? "↻1" : "↻";
            fg = state.settings.repeatMode != RepeatMode::off ? palette::accent : palette::dim;
            break;
        }
        buffer.fill(r, Style{palette::text, bg, false, false});
        const int gw = text::displayWidth(glyph);
        buffer.text(glyph, r.x + std::max(0, (r.width - gw) / 2), r.y, r.width,
                    Style{fg, bg, bold, false});
    }
}

void PlayerView::drawProgress(double elapsed, const AppState& state, const Layout& layout,
                              ScreenBuffer& buffer) {
    const Rect& pr = layout.progress;
    const double d = state.playback.duration;
    const std::string total = format(d);
    const int n = chars(total) + 1;
    const int x0 = pr.x + n;
    const int bw = std::max(0, pr.width - 2 * n);
    const std::string now = format(elapsed);
    buffer.text(now, x0 - 1 - chars(now), pr.y, chars(now), palette::on(palette::dim));
    buffer.text(total, x0 + bw + 1, pr.y, chars(total), palette::on(palette::dim));
    buffer.fill({x0, pr.y, bw, 1}, palette::on(palette::veryDim), Glyph("━", 1));
    long long played = 0;
    if (d > 0 && std::isfinite(d) && std::isfinite(elapsed)) {
        const double p = std::round(elapsed / d * bw); // std::round rounds halves away from 0
        played = static_cast<long long>(std::clamp(p, 0.0, static_cast<double>(bw)));
    }
    buffer.fill({x0, pr.y, static_cast<int>(std::min<long long>(played, bw)), 1},
                palette::on(palette::accent), Glyph("━", 1));
}

} // namespace trovan
