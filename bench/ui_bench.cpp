// SPDX-License-Identifier: GPL-3.0-or-later
// Frame composition and cover decoding costs.

#include "ui/CoverArtRenderer.h"
#include "ui/Layout.h"
#include "ui/Screen.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>

using namespace trovan;

namespace {

// One artist with 100 albums of 8 tracks: 1,000 rows with album, spacer and filler rows.
AppState bigLibrary(const Layout& layout) {
    std::vector<Track> tracks;
    for (int a = 0; a < 100; ++a)
        for (int t = 1; t <= 8; ++t) {
            Track tr;
            tr.path =
                "/music/artist/album " + std::to_string(a) + "/" + std::to_string(t) + ".flac";
            tr.title = "Canción número " + std::to_string(t) + " del álbum " + std::to_string(a);
            tr.artist = "Artista de prueba";
            tr.album = "Álbum " + std::to_string(a);
            tr.year = 1970 + a % 50;
            tr.trackNumber = t;
            tr.discNumber = 1 + (t > 4 && a % 3 == 0);
            tr.durationMs = 180000 + 1000 * t;
            tr.codec = "FLAC";
            tracks.push_back(tr);
        }
    for (int i = 0; i < 200; ++i) {
        Track tr;
        tr.path = "/music/other/" + std::to_string(i) + ".mp3";
        tr.title = "Otra";
        tr.artist = "Otro artista " + std::to_string(i);
        tracks.push_back(tr);
    }
    AppState s{Settings{}};
    s.index = LibraryIndex(tracks);
    s.artistRows = s.index.artistRows();
    for (std::size_t i = 0; i < s.artistRows.size(); ++i)
        if (const auto* a = s.artistRows[i].get<ArtistRow::Artist>())
            if (s.index.artists[static_cast<std::size_t>(a->artist)].name == "Artista de prueba") {
                s.shownArtist = static_cast<int>(i);
                s.artists.cursor = static_cast<int>(i);
                s.libraryRows = s.index.libraryRows(a->artist, layout.minimumAlbumHeight());
            }
    s.library.cursor = 520;
    s.library.offset = 500;
    s.focus = Focus::library;
    const auto& artist = *std::find_if(s.index.artists.begin(), s.index.artists.end(),
                                       [](const auto& a) { return a.name == "Artista de prueba"; });
    std::vector<RGB> px(100, RGB{90, 60, 30});
    for (const auto& album : artist.albums)
        s.albumCovers[CoverArt::albumKey(artist, album)] = CoverArt{"k", px};
    s.playback.track = tracks[4003 % tracks.size()];
    s.playback.isPlaying = true;
    s.playback.duration = 200;
    s.overlay = Overlay::help();
    return s;
}

void BM_ComposeFullFrameWithHelp(benchmark::State& st) {
    const Layout layout(Size{200, 60});
    const AppState state = bigLibrary(layout);
    if (state.libraryRows.size() < 1000) st.SkipWithError("library too small");
    st.counters["rows"] = static_cast<double>(state.libraryRows.size());
    for (auto _ : st) {
        Frame f = Screen::compose(state, layout, 100.0);
        benchmark::DoNotOptimize(f.buffer.cells().data());
    }
}
BENCHMARK(BM_ComposeFullFrameWithHelp)->Unit(benchmark::kMicrosecond);

std::vector<std::uint8_t> bigJpeg() {
    namespace fs = std::filesystem;
    const fs::path path =
        fs::temp_directory_path() / ("trovan-bench-" + std::to_string(::getpid()) + ".jpg");
    const std::string cmd =
        "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=s=1000x1000 -frames:v 1 -q:v 3 '" +
        path.string() + "'";
    if (std::system(cmd.c_str()) != 0) return {};
    std::ifstream in(path, std::ios::binary);
    std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                    std::istreambuf_iterator<char>()};
    std::error_code ec;
    fs::remove(path, ec);
    return bytes;
}

void BM_DecodeAndScaleJpegCover(benchmark::State& st) {
    static const std::vector<std::uint8_t> jpeg = bigJpeg();
    if (jpeg.empty()) {
        st.SkipWithError("ffmpeg could not generate the picture");
        return;
    }
    for (auto _ : st) {
        auto px = CoverArtRenderer::pixels(jpeg, 10, 5);
        if (!px) st.SkipWithError("decode failed");
        benchmark::DoNotOptimize(px);
    }
}
BENCHMARK(BM_DecodeAndScaleJpegCover)->Unit(benchmark::kMillisecond);

} // namespace
