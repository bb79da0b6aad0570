#pragma once
// A small, varied library and ready-made states for the view tests.

#include "state/AppState.h"
#include "ui/Layout.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace trovan::testing {

inline const StatusMessage::Clock::time_point kNow =
    StatusMessage::Clock::time_point{} + std::chrono::hours(24 * 365 * 50);

inline Track makeTrack(std::string path, std::string title, std::string artist, std::string album,
                       int year, int number, int disc, int seconds, std::string codec,
                       std::string albumArtist = {}) {
    Track t;
    t.path = std::move(path);
    t.title = std::move(title);
    t.artist = std::move(artist);
    t.albumArtist = std::move(albumArtist);
    t.album = std::move(album);
    t.year = year;
    t.trackNumber = number;
    t.discNumber = disc;
    t.durationMs = seconds * 1000LL;
    t.codec = std::move(codec);
    t.sampleRate = 44100;
    t.channels = 2;
    return t;
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

// A PNG of 8-bit RGBA pixels, `pixel(x, y)` giving {r, g, b, a}, stored without
// compression: covers with transparency, made without any tool.
template <class Pixel> std::vector<std::uint8_t> rgbaPng(int width, int height, Pixel pixel) {
    std::vector<std::uint8_t> raw;
    for (int y = 0; y < height; ++y) {
        raw.push_back(0); // no filter
        for (int x = 0; x < width; ++x)
            for (std::uint8_t v : pixel(x, y))
                raw.push_back(v);
    }
    auto be32 = [](std::vector<std::uint8_t>& out, std::uint32_t v) {
        for (int shift = 24; shift >= 0; shift -= 8)
            out.push_back(static_cast<std::uint8_t>(v >> shift));
    };
    // zlib stream of stored blocks, with its Adler-32.
    std::vector<std::uint8_t> z = {0x78, 0x01};
    for (std::size_t at = 0; at < raw.size() || at == 0;) {
        const std::size_t n = std::min<std::size_t>(65535, raw.size() - at);
        z.push_back(at + n == raw.size() ? 1 : 0);
        for (std::uint16_t v : {static_cast<std::uint16_t>(n), static_cast<std::uint16_t>(~n)}) {
            z.push_back(static_cast<std::uint8_t>(v & 0xFF));
            z.push_back(static_cast<std::uint8_t>(v >> 8));
        }
        z.insert(z.end(), raw.begin() + static_cast<std::ptrdiff_t>(at),
                 raw.begin() + static_cast<std::ptrdiff_t>(at + n));
        at += n;
        if (raw.empty()) break;
    }
    std::uint32_t a = 1, b = 0;
    for (std::uint8_t v : raw) {
        a = (a + v) % 65521;
        b = (b + a) % 65521;
    }
    be32(z, (b << 16) | a);

    std::vector<std::uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    auto chunk = [&](const char* type, const std::vector<std::uint8_t>& data) {
        be32(png, static_cast<std::uint32_t>(data.size()));
        std::vector<std::uint8_t> body(type, type + 4);
        body.insert(body.end(), data.begin(), data.end());
        std::uint32_t crc = 0xFFFFFFFF;
        for (std::uint8_t v : body) {
            crc ^= v;
            for (int k = 0; k < 8; ++k)
                crc = (crc >> 1) ^ (0xEDB88320 & (0u - (crc & 1)));
        }
        png.insert(png.end(), body.begin(), body.end());
        be32(png, ~crc);
    };
    std::vector<std::uint8_t> header;
    be32(header, static_cast<std::uint32_t>(width));
    be32(header, static_cast<std::uint32_t>(height));
    header.insert(header.end(), {8, 6, 0, 0, 0}); // 8-bit RGBA, no interlace
    chunk("IHDR", header);
    chunk("IDAT", z);
    chunk("IEND", {});
    return png;
}

} // namespace trovan::testing
