// SPDX-License-Identifier: GPL-3.0-or-later
#include "text/Text.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

using namespace trovan::text;

static void BM_DisplayWidthAscii(benchmark::State& state) {
    std::string s = "The Quick Brown Fox Jumps Over The Lazy Dog - Remastered 2011";
    for (auto _ : state) benchmark::DoNotOptimize(displayWidth(s));
}
BENCHMARK(BM_DisplayWidthAscii);

static void BM_DisplayWidthMixed(benchmark::State& state) {
    std::string s = "Canci\xC3\xB3n de cuna \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x8E\xB5 Beyonc\xC3\xA9";
    for (auto _ : state) benchmark::DoNotOptimize(displayWidth(s));
}
BENCHMARK(BM_DisplayWidthMixed);

static void BM_FoldAccented(benchmark::State& state) {
    std::string s = "Sigur R\xC3\xB3s \xE2\x80\x94 \xC3\x81g\xC3\xA6tis byrjun";
    for (auto _ : state) benchmark::DoNotOptimize(fold(s));
}
BENCHMARK(BM_FoldAccented);

static void BM_CompareNumeric(benchmark::State& state) {
    std::string a = "track 12 of the album 2001", b = "track 12 of the album 1999";
    for (auto _ : state) benchmark::DoNotOptimize(compareNumeric(a, b));
}
BENCHMARK(BM_CompareNumeric);
