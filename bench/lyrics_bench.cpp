// SPDX-License-Identifier: GPL-3.0-or-later
// Timed lyrics: reading a 5,000-line LRC text and drawing the lyrics pane that follows
// the song (the budget for both together is 2 ms).

#include "tags/Lrc.h"
#include "terminal/Palette.h"
#include "ui/Layout.h"
#include "ui/LyricsView.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

using namespace trovan;

namespace {

std::string bigLrc() {
    std::string text = "\xEF\xBB\xBF[ar:Artista]\r\n[ti:Canción larga]\r\n[offset:+250]\r\n";
    char stamp[32];
    for (int i = 0; i < 5000; ++i) {
        const int cs = i * 73 + (i % 7) * 3;
        std::snprintf(stamp, sizeof stamp, "[%02d:%02d.%02d]", cs / 6000, cs / 100 % 60, cs % 100);
        text += stamp;
        if (i % 10 == 0) text += "<00:00.00>"; // a few word stamps
        text += "Línea " + std::to_string(i) + " de una letra que sigue y sigue, cantada\r\n";
    }
    return text;
}

AppState following(Lrc lrc) {
    AppState s{Settings{}};
    Track t;
    t.path = "/m/cancion.flac";
    t.title = "Canción";
    s.playback.track = t;
    Lyrics lyrics{t.path, t.title, {}, LyricsOrigin::tag, std::nullopt};
    for (const auto& l : lrc.lines)
        lyrics.lines.push_back(l.text);
    lyrics.timed = std::move(lrc);
    s.lyrics = std::move(lyrics);
    s.lyricsVisible = true;
    s.focus = Focus::library;
    return s;
}

void BM_ParseLrc5000Lines(benchmark::State& state) {
    const std::string text = bigLrc();
    for (auto _ : state) {
        auto lrc = Lrc::parse(text);
        benchmark::DoNotOptimize(lrc);
    }
}
BENCHMARK(BM_ParseLrc5000Lines)->Unit(benchmark::kMicrosecond);

void BM_DrawFollowedLyrics5000Lines(benchmark::State& state) {
    const Layout layout(Size{160, 50});
    const AppState s = following(*Lrc::parse(bigLrc()));
    ScreenBuffer buffer(160, 50, palette::defaultStyle);
    double elapsed = 0;
    for (auto _ : state) {
        elapsed = elapsed > 3600 ? 0 : elapsed + 0.25; // one ticker step each frame
        LyricsView::draw(s, layout, elapsed, buffer);
        benchmark::DoNotOptimize(buffer);
    }
}
BENCHMARK(BM_DrawFollowedLyrics5000Lines)->Unit(benchmark::kMicrosecond);

// What opening the lyrics of such a song costs: read, then the first frame.
void BM_ParseAndDraw5000Lines(benchmark::State& state) {
    const Layout layout(Size{160, 50});
    const std::string text = bigLrc();
    ScreenBuffer buffer(160, 50, palette::defaultStyle);
    for (auto _ : state) {
        const AppState s = following(*Lrc::parse(text));
        LyricsView::draw(s, layout, 1800.0, buffer);
        benchmark::DoNotOptimize(buffer);
    }
}
BENCHMARK(BM_ParseAndDraw5000Lines)->Unit(benchmark::kMicrosecond);

} // namespace
