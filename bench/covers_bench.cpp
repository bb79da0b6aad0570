// SPDX-License-Identifier: GPL-3.0-or-later
// Scrolling a list of 1,000 albums with their covers at key-repeat speed, one row per
// frame, in each way of drawing covers: the frame's composition and the renderer's bytes.
// Arg 0: half blocks, 1: kitty images, 2: sixel. The list is walked down to its end and
// back up, so kitty's count of pictures sent again must stay at 0.

#include "terminal/Renderer.h"
#include "ui/Layout.h"
#include "ui/Screen.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

using namespace trovan;

namespace {

constexpr int kAlbums = 1000;
constexpr int kCellWidth = 10, kCellHeight = 20;

// A picture with some texture, different for every album, so compression has work.
std::shared_ptr<const PixelImage> picture(int album) {
    const int w = Layout::albumCoverColumns * kCellWidth, h = Layout::albumCoverRows * kCellHeight;
    std::vector<std::uint8_t> rgb(static_cast<std::size_t>(w) * h * 3);
    unsigned seed = 2654435761u * static_cast<unsigned>(album + 1);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            seed = seed * 1103515245u + 12345u;
            const int noise = static_cast<int>((seed >> 16) % 24);
            auto* p = &rgb[(static_cast<std::size_t>(y) * w + x) * 3];
            p[0] = static_cast<std::uint8_t>((x * 2 + album * 37) % 232 + noise);
            p[1] = static_cast<std::uint8_t>((y * 2 + album * 11) % 232 + noise);
            p[2] = static_cast<std::uint8_t>(((x + y) + album * 53) % 232 + noise);
        }
    return PixelImage::make(w, h, std::move(rgb));
}

AppState albums(const Layout& layout, GraphicsProtocol protocol) {
    std::vector<Track> tracks;
    for (int a = 0; a < kAlbums; ++a) {
        Track t;
        t.path = "/music/artista/" + std::to_string(a) + "/01.flac";
        t.title = "Canción " + std::to_string(a);
        t.artist = "Artista";
        t.album = "Álbum " + std::to_string(a);
        t.year = 1970 + a % 50;
        t.trackNumber = 1;
        t.durationMs = 200000;
        t.codec = "FLAC";
        tracks.push_back(t);
    }
    AppState s{Settings{}};
    s.index = LibraryIndex(tracks);
    s.artistRows = s.index.artistRows();
    for (std::size_t i = 0; i < s.artistRows.size(); ++i)
        if (const auto* a = s.artistRows[i].get<ArtistRow::Artist>()) {
            s.shownArtist = static_cast<int>(i);
            s.libraryRows = s.index.libraryRows(a->artist, layout.minimumAlbumHeight());
        }
    s.focus = Focus::library;
    s.graphics = GraphicsChoice{protocol, false, kCellWidth, kCellHeight, 256};
    const auto& artist = s.index.artists.front();
    int n = 0;
    for (const auto& album : artist.albums) {
        const auto image = picture(n++);
        // The half-block grid: the picture's mean colours, two pixel rows per cell.
        std::vector<RGB> px;
        for (int y = 0; y < 2 * Layout::albumCoverRows; ++y)
            for (int x = 0; x < Layout::albumCoverColumns; ++x) {
                const auto* p =
                    &image->rgb[(static_cast<std::size_t>(y * kCellHeight / 2) * image->width +
                                 static_cast<std::size_t>(x * kCellWidth)) *
                                3];
                px.push_back(RGB{p[0], p[1], p[2]});
            }
        const auto key = CoverArt::albumKey(artist, album);
        s.albumCovers[key] = CoverArt{key, px, image};
    }
    return s;
}

void BM_ScrollAlbumsWithCovers(benchmark::State& st) {
    const auto protocol = static_cast<GraphicsProtocol>(st.range(0));
    const Layout layout(Size{120, 40});
    AppState state = albums(layout, protocol);
    Renderer renderer;
    renderer.truecolor = true;
    renderer.setGraphics(protocol);
    const int rows = static_cast<int>(state.libraryRows.size());
    if (rows < 5 * kAlbums) st.SkipWithError("library too small");
    (void)renderer.render(Screen::compose(state, layout, 0).buffer, std::nullopt);

    std::size_t bytes = 0;
    std::int64_t step = 0;
    std::set<std::uint64_t> seen;
    for (auto _ : st) {
        // Down through every album, then back up.
        const std::int64_t phase = step++ % (10 * kAlbums);
        state.library.cursor += phase < 5 * kAlbums ? 1 : -1;
        state.library.scrollToCursor(layout.libraryList.height);
        Frame f = Screen::compose(state, layout, 0);
        for (const auto& p : f.buffer.images())
            seen.insert(p.image->serial);
        bytes += renderer.render(std::move(f.buffer), f.cursor).size();
    }
    st.counters["bytes_per_frame"] =
        static_cast<double>(bytes) / static_cast<double>(st.iterations());
    if (protocol == GraphicsProtocol::kitty)
        st.counters["images_sent_again"] =
            static_cast<double>(renderer.imagesTransmitted()) - static_cast<double>(seen.size());
}
BENCHMARK(BM_ScrollAlbumsWithCovers)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(10 * kAlbums)
    ->Unit(benchmark::kMillisecond);

} // namespace
