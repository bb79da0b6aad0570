// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/LibraryIndex.h"

#include <gtest/gtest.h>

using namespace trovan;

namespace {

Track track(std::string path, std::string artist, std::string album, int64_t number = 0,
            int64_t disc = 0, int64_t year = 0, std::string codec = "FLAC",
            std::string title = "") {
    return {path, 0, 0, title, artist, "", album, "", year, number, disc, 0, codec};
}

// "[A] abba [#] 10cc": letter headings in brackets, artists by name.
std::string describe(const LibraryIndex& index, const std::vector<ArtistRow>& rows) {
    std::string out;
    for (const auto& r : rows)
        out += (r.is<ArtistRow::Letter>()
                    ? "[" + r.get<ArtistRow::Letter>()->letter + "]"
                    : std::string(index.artists.at(r.get<ArtistRow::Artist>()->artist).name)) +
               " ";
    return out;
}

// "A0 0:/path F0 - A1 D1/2": album headings, tracks with their album, fillers, spacers,
// disc headings.
std::string describe(const LibraryIndex& index, const std::vector<LibraryRow>& rows) {
    std::string out;
    for (const auto& r : rows) {
        if (auto a = r.get<LibraryRow::Album>()) out += "A" + std::to_string(a->album);
        if (auto d = r.get<LibraryRow::Disc>())
            out += "D" + std::to_string(d->album) + "/" + std::to_string(d->number);
        if (auto t = r.get<LibraryRow::Track>())
            out += std::to_string(t->album) + ":" + std::string(index.table().path(t->id));
        if (auto f = r.get<LibraryRow::Filler>()) out += "F" + std::to_string(f->album);
        if (r.is<LibraryRow::Spacer>()) out += "-";
        out += " ";
    }
    return out;
}

} // namespace

TEST(LibraryIndex, ArtistsGroupSortAndFallUnderTheirLetters) {
    // Accent, case and full-width variants of one name are one artist, named as first
    // seen; the album artist, when there is one, decides the group.
    auto other = track("/m/5.flac", "Björk", "X");
    other.albumArtist = "Other";
    auto index =
        LibraryIndex({track("/m/1.flac", "Björk", "Post"), track("/m/2.flac", "bjork", "Post"),
                      track("/m/3.flac", "ＢＪＯＲＫ", "Post"), track("/m/4.flac", "BJÖRK", "Post"),
                      other, track("/1", "10cc", "a"), track("/2", "2pac", "a"),
                      track("/3", "Zappa", "a"), track("/4", "Émilie", "a"),
                      track("/5", "Кино", "a"), track("/6", "abba", "a"), track("/7", "", "a")});
    EXPECT_EQ(describe(index, index.artistRows()),
              "[A] abba Artista desconocido [B] Björk [E] "
              "Émilie [O] Other [Z] Zappa [#] 2pac 10cc Кино ");
    EXPECT_EQ(index.artists[2].key, "bjork");
    EXPECT_EQ(index.artists[2].albums.at(0).tracks().size(), 4u);
    EXPECT_EQ(index.trackCount, 12);
    EXPECT_EQ(index.find("/m/3.flac")->artist, "ＢＪＯＲＫ");
    EXPECT_FALSE(index.contains("/m/3.FLAC"));

    LibraryIndex empty(std::vector<Track>{});
    EXPECT_EQ(empty.trackCount, 0);
    EXPECT_TRUE(empty.artistRows().empty());
    EXPECT_TRUE(empty.libraryRows(0, 8).empty());
    EXPECT_TRUE(index.libraryRows(-1, 8).empty());
}

TEST(LibraryIndex, AlbumsDiscsAndTracks) {
    auto index = LibraryIndex({
        track("/u1", "A", "", 1),                     // undated, unknown album
        track("/b1", "A", "Beta", 2, 0, 2001, "MP3"), // years 2001, 0, 1999 -> 1999
        track("/b2", "A", "beta", 1, 1, 0, "FLAC"),   // discs 0 and 1 are both disc 1
        track("/b3", "A", "Beta", 0, 0, 1999, "FLAC"),
        track("/c1", "A", "Gamma", 1, 2, 2010),
        track("/c2", "A", "Gamma", 1, 1, 2010),
        track("/c3", "A", "Gamma", 2, 1, 2010),
    });
    const auto& albums = index.artists.at(0).albums;
    ASSERT_EQ(albums.size(), 3u);
    EXPECT_EQ(std::tie(albums[0].title, albums[0].year), std::make_tuple("Beta", 1999));
    EXPECT_EQ(albums[0].codec, std::nullopt);
    EXPECT_EQ(std::tie(albums[1].title, albums[1].codec),
              std::make_tuple("Gamma", std::optional<std::string>("FLAC")));
    EXPECT_EQ(std::tie(albums[2].title, albums[2].year), std::make_tuple(kUnknownAlbum, 0));
    EXPECT_EQ(describe(index, index.libraryRows(0, 5)),
              "A0 0:/b3 0:/b2 0:/b1 F0 - A1 D1/1 1:/c2 1:/c3 "
              "D1/2 1:/c1 - A2 2:/u1 F2 F2 F2 ");
    EXPECT_EQ(index.libraryRows(0, 5)[4].albumIndex(), 0);
    EXPECT_EQ(index.libraryRows(0, 5)[5].albumIndex(), std::nullopt);

    // No padding when the minimum is negative or already met.
    EXPECT_EQ(index.libraryRows(0, -3).size(), 14u);
    EXPECT_TRUE(index.libraryRows(1, 8).empty());
}
