// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/InputDecoder.h"
#include "terminal/Palette.h"
#include "terminal/Renderer.h"
#include "terminal/ScreenBuffer.h"

#include <benchmark/benchmark.h>

#include <string>

using namespace trovan;

namespace {

constexpr int kWidth = 200;
constexpr int kHeight = 60;

// A busy frame: header, two panes of rows with a selection bar, accents and a rule.
ScreenBuffer sampleFrame() {
    ScreenBuffer b(kWidth, kHeight, palette::defaultStyle);
    b.text("\xC4\xB1l\xC4\xB1l Trovan", 2, 0, 40, palette::on(palette::accent, true));
    b.fill(Rect{2, 1, kWidth - 4, 1}, palette::on(palette::rule), "\xE2\x94\x80");
    for (int y = 2; y < kHeight - 6; ++y) {
        const bool selected = y == 10;
        Style s = selected ? Style{palette::white, palette::selectionFocused, false, false}
                           : palette::on(y % 3 ? palette::dim : palette::text);
        if (selected) b.fill(Rect{2, y, 40, 1}, s);
        b.text("Artista n\xC3\xBAmero " + std::to_string(y), 3, y, 38, s);
        b.text(std::to_string(y % 20 + 1) +
                   "  Canci\xC3\xB3n con un t\xC3\xADtulo bastante largo " + std::to_string(y) +
                   " \xE6\xBC\xA2\xE5\xAD\x97",
               50, y, 140, palette::on(palette::text));
        b.text("3:4" + std::to_string(y % 10), 192, y, 6, palette::on(palette::dim));
    }
    b.fill(Rect{2, kHeight - 6, kWidth - 4, 1}, palette::on(palette::rule), "\xE2\x94\x80");
    for (int x = 14; x < kWidth - 2; ++x)
        b.put(x < 90 ? "\xE2\x94\x81" : "\xE2\x94\x80", x, kHeight - 1,
              palette::on(x < 90 ? palette::accent : palette::veryDim));
    return b;
}

void BM_RenderFullRedraw(benchmark::State& state) {
    const ScreenBuffer frame = sampleFrame();
    Renderer r;
    r.truecolor = state.range(0) != 0;
    std::size_t bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ScreenBuffer copy = frame;
        r.front.reset();
        state.ResumeTiming();
        std::string out = r.render(std::move(copy), std::nullopt);
        bytes = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_RenderFullRedraw)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

void BM_RenderNoChange(benchmark::State& state) {
    const ScreenBuffer frame = sampleFrame();
    Renderer r;
    r.render(frame, std::nullopt);
    std::size_t bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ScreenBuffer copy = frame;
        state.ResumeTiming();
        std::string out = r.render(std::move(copy), std::nullopt);
        bytes = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    if (bytes != std::string("\x1b[?2026h\x1b[?25l\x1b[?2026l").size())
        state.SkipWithError("an unchanged frame wrote more than the framing bytes");
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_RenderNoChange)->Unit(benchmark::kMicrosecond);

void BM_RenderOneChangedCell(benchmark::State& state) {
    const ScreenBuffer a = sampleFrame();
    ScreenBuffer b = a;
    b.put("X", 100, 30, palette::on(palette::error));
    Renderer r;
    r.render(a, std::nullopt);
    bool flip = false;
    std::size_t bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ScreenBuffer copy = flip ? a : b;
        flip = !flip;
        state.ResumeTiming();
        std::string out = r.render(std::move(copy), std::nullopt);
        bytes = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_RenderOneChangedCell)->Unit(benchmark::kMicrosecond);

// What one idle frame costs the main loop: a fresh background buffer plus the diff.
void BM_ComposeAndRenderBlankFrame(benchmark::State& state) {
    Renderer r;
    r.render(ScreenBuffer(kWidth, kHeight, palette::defaultStyle), std::nullopt);
    for (auto _ : state) {
        std::string out =
            r.render(ScreenBuffer(kWidth, kHeight, palette::defaultStyle), std::nullopt);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_ComposeAndRenderBlankFrame)->Unit(benchmark::kMicrosecond);

// Typing, accented text, cursor keys, mouse drags and a paste, as one 4 KiB read.
void BM_DecodeMixedInput(benchmark::State& state) {
    std::string chunk;
    while (chunk.size() < 4096) {
        chunk += "hola ma\xC3\xB1"
                 "ana \xF0\x9F\x8E\xB5";
        chunk += "\x1b[A\x1b[B\x1b[1;2A\x1bOP\x1b[5~\r\x7f\x03";
        chunk += "\x1b[<0;10;5M\x1b[<32;11;5M\x1b[<0;11;5m\x1b[<64;3;3M";
        chunk += "\x1b[200~pegado \xC3\xA9 texto\x1b[201~";
    }
    chunk.resize(4096);
    std::size_t events = 0;
    for (auto _ : state) {
        InputDecoder d;
        auto out = d.decode(chunk);
        events += out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 4096);
    state.counters["events"] =
        benchmark::Counter(static_cast<double>(events), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_DecodeMixedInput)->Unit(benchmark::kMicrosecond);

} // namespace
