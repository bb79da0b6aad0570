// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A small, varied library and ready-made states for the view tests.

#include "state/AppState.h"
#include "support/Fixtures.h"
#include "ui/Layout.h"

#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace trovan::testing {

inline const StatusMessage::Clock::time_point kNow =
    StatusMessage::Clock::time_point{} + std::chrono::hours(24 * 365 * 50);

inline Track makeTrack(std::string path, std::string title, std::string artist, std::string album,
                       int year, int number, int disc, int seconds, std::string codec,
                       std::string albumArtist = {}) {
    return {path,  0,     0,    title,  artist, albumArtist,
            album, "",    year, number, disc,   seconds * 1000LL,
            codec, 44100, 0,    2,      {}};
}

// Artists across several letters, a "#" group with a digit and a CJK name, albums with
// two discs, an undated album and mixed codecs.
inline LibraryIndex sampleIndex() {
    const std::string air = "/m/air/";
    return LibraryIndex(std::vector<Track>{
        makeTrack(air + "ms/01.flac", "La Femme d'Argent", "Air", "Moon Safari", 1998, 1, 1, 431,
                  "FLAC"),
        makeTrack(air + "ms/02.flac", "Sexy Boy", "Air", "Moon Safari", 1998, 2, 1, 298, "FLAC"),
        makeTrack(air + "ms/03.flac", "All I Need", "Air", "Moon Safari", 1998, 3, 1, 268, "FLAC"),
        makeTrack(air + "tw/1-01.mp3", "Venus", "Air", "Talkie Walkie", 2004, 1, 1, 235, "MP3"),
        makeTrack(air + "tw/1-02.mp3", "Cherry Blossom Girl", "Air", "Talkie Walkie", 2004, 2, 1,
                  248, "MP3"),
        makeTrack(air + "tw/2-01.mp3", "Run", "Air", "Talkie Walkie", 2004, 1, 2, 253, "MP3"),
        makeTrack(air + "tw/2-02.mp3", "Universal Traveler", "Air", "Talkie Walkie", 2004, 2, 2,
                  261, "MP3"),
        makeTrack(air + "x/demo.wav", "", "Air", "", 0, 0, 0, 3725, "WAV"),
        makeTrack("/m/abba/01.mp3", "Dancing Queen", "ABBA", "Arrival", 1976, 2, 1, 231, "MP3"),
        makeTrack("/m/bjork/01.flac", "Jóga", "Björk", "Homogenic", 1997, 3, 1, 305, "FLAC"),
        makeTrack("/m/beatles/01.flac", "Something", "The Beatles", "Abbey Road", 1969, 2, 1, 183,
                  "FLAC"),
        makeTrack("/m/zoe/01.flac", "Sun Will Set", "Zoë Keating", "Into the Trees", 2010, 1, 1,
                  300, "FLAC"),
        makeTrack("/m/2pac/01.mp3", "Changes", "2Pac", "Greatest Hits", 1998, 1, 1, 269, "MP3"),
        makeTrack("/m/sakamoto/01.flac", "戦場のメリークリスマス", "坂本龍一", "Coda", 1983, 1, 1,
                  300, "FLAC"),
        makeTrack("/m/olafur/01.flac", "Near Light", "Ólafur Arnalds", "Living Room Songs", 2011, 4,
                  1, 200, "FLAC")});
}

inline int artistRowOf(const AppState& state, const std::string& name) {
    for (std::size_t i = 0; i < state.artistRows.size(); ++i)
        if (const auto* a = state.artistRows[i].get<ArtistRow::Artist>())
            if (state.index.artists[static_cast<std::size_t>(a->artist)].name == name)
                return static_cast<int>(i);
    return -1;
}

// The sample library loaded, `artistName` under the cursor and shown in the library pane
// with rows shaped for `layout`.
inline AppState libraryState(const Layout& layout, const std::string& artistName = "Air") {
    AppState state{Settings{}};
    state.index = sampleIndex();
    state.artistRows = state.index.artistRows();
    const int row = artistRowOf(state, artistName);
    state.artists.cursor = row;
    state.artists.scrollToCursor(layout.artistsList.height);
    state.shownArtist = row;
    const int artist =
        state.artistRows[static_cast<std::size_t>(row)].get<ArtistRow::Artist>()->artist;
    state.libraryRows = state.index.libraryRows(artist, layout.minimumAlbumHeight());
    return state;
}

// One frame of the ffmpeg lavfi `source` encoded by the ffmpeg tool (JPEG at high quality)
// with the space-separated `options`, the file name's extension choosing the format;
// empty when ffmpeg fails or lacks the encoder.
inline std::vector<std::uint8_t> picture(const std::string& fileName, const std::string& source,
                                         const std::string& options = {}) {
    fixtures::TempDir dir("trovan-picture");
    try {
        fixtures::ffmpeg(source, "-frames:v 1 -q:v 2 " + options, dir / fileName);
    } catch (const std::runtime_error&) {
        return {};
    }
    std::ifstream in(dir / fileName, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A PNG of 8-bit RGBA pixels from one expression of X and Y per channel (ffmpeg's geq
// filter): covers with transparency.
inline std::vector<std::uint8_t> rgbaPng(int width, int height, const std::string& r,
                                         const std::string& g, const std::string& b,
                                         const std::string& a) {
    return picture("cover.png", "nullsrc=s=" + std::to_string(width) + "x" + std::to_string(height),
                   "-vf format=rgba,geq=r='" + r + "':g='" + g + "':b='" + b + "':a='" + a +
                       "' -pix_fmt rgba");
}

} // namespace trovan::testing
