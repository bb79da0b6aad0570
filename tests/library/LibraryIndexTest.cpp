#include "library/LibraryIndex.h"

#include <gtest/gtest.h>

using namespace trovan;

namespace {

Track track(std::string path, std::string artist, std::string album, int64_t number = 0,
            int64_t disc = 0, int64_t year = 0, std::string codec = "FLAC",
            std::string title = "") {
    return {path, 0, 0, title, artist, "", album, "", year, number, disc, 0, codec};
}

template <class Range, class Key> std::vector<std::string> each(const Range& range, Key key) {
    std::vector<std::string> out;
    for (const auto& item : range)
        out.push_back(key(item));
    return out;
}

} // namespace

TEST(LibraryIndex, SpellingsOfOneArtistGroupTogether) {
    // Accent, case and full-width variants of one name are one artist, named as first
    // seen; the album artist, when there is one, decides the group.
    auto other = track("/m/5.flac", "Björk", "X");
    other.albumArtist = "Other";
    auto index = LibraryIndex(
        {track("/m/1.flac", "Björk", "Post"), track("/m/2.flac", "bjork", "Post"),
         track("/m/3.flac", "ＢＪＯＲＫ", "Post"), track("/m/4.flac", "BJÖRK", "Post"), other});
    ASSERT_EQ(index.artists.size(), 2u);
    EXPECT_EQ(index.artists[0].name, "Björk");
    EXPECT_EQ(index.artists[0].key, "bjork");
    EXPECT_EQ(index.artists[0].albums.at(0).tracks().size(), 4u);
    EXPECT_EQ(index.artists[1].name, "Other");
    EXPECT_EQ(index.trackCount, 5);
    EXPECT_EQ(index.tracksByPath.size(), 5u);
    EXPECT_EQ(index.tracksByPath.at("/m/3.flac").artist, "ＢＪＯＲＫ");
}

TEST(LibraryIndex, ArtistOrderAndLetters) {
    auto index =
        LibraryIndex({track("/1", "10cc", "a"), track("/2", "2pac", "a"), track("/3", "Zappa", "a"),
                      track("/4", "Émilie", "a"), track("/5", "Кино", "a"),
                      track("/6", "abba", "a"), track("/7", "", "a")});
    EXPECT_EQ(each(index.artists, [](const auto& a) { return a.name; }),
              (std::vector<std::string>{"abba", "Artista desconocido", "Émilie", "Zappa", "2pac",
                                        "10cc", "Кино"}));
    auto rows = index.artistRows();
    std::vector<ArtistRow> expected = {
        ArtistRow::letter("A"), ArtistRow::artist(0),   ArtistRow::artist(1),
        ArtistRow::letter("E"), ArtistRow::artist(2),   ArtistRow::letter("Z"),
        ArtistRow::artist(3),   ArtistRow::letter("#"), ArtistRow::artist(4),
        ArtistRow::artist(5),   ArtistRow::artist(6)};
    EXPECT_EQ(rows, expected);

    LibraryIndex empty(std::vector<Track>{});
    EXPECT_EQ(empty, LibraryIndex::empty());
    EXPECT_EQ(empty.trackCount, 0);
    EXPECT_TRUE(empty.artistRows().empty());
    EXPECT_TRUE(empty.libraryRows(0, 8).empty());
    EXPECT_TRUE(index.libraryRows(-1, 8).empty());
}

TEST(LibraryIndex, AlbumsDiscsAndTracks) {
    auto index = LibraryIndex({
        track("/u1", "A", "", 1),                     // undated, unknown album
        track("/b1", "A", "Beta", 2, 0, 2001, "MP3"), // years 2001, 0, 1999 -> 1999
        track("/b2", "A", "beta", 1, 1, 0, "FLAC"),
        track("/b3", "A", "Beta", 0, 0, 1999, "FLAC"),
        track("/c1", "A", "Gamma", 1, 2, 2010),
        track("/c2", "A", "Gamma", 1, 1, 2010),
        track("/c3", "A", "Gamma", 2, 1, 2010),
    });
    const auto& albums = index.artists.at(0).albums;
    ASSERT_EQ(albums.size(), 3u);
    EXPECT_EQ(albums[0].title, "Beta");
    EXPECT_EQ(albums[0].year, 1999);
    EXPECT_FALSE(albums[0].codec.has_value());
    ASSERT_EQ(albums[0].discs.size(), 1u); // discs 0 and 1 are both disc 1
    EXPECT_EQ(albums[0].discs[0].number, 1);
    auto path = [](const Track& t) { return t.path; };
    EXPECT_EQ(each(albums[0].tracks(), path), (std::vector<std::string>{"/b3", "/b2", "/b1"}));

    EXPECT_EQ(albums[1].title, "Gamma");
    EXPECT_EQ(albums[1].codec, std::optional<std::string>("FLAC"));
    ASSERT_EQ(albums[1].discs.size(), 2u);
    EXPECT_EQ(albums[2].title, "Álbum desconocido");
    EXPECT_EQ(albums[2].year, 0);

    auto rows = index.libraryRows(0, 5);
    const auto& g = albums[1].discs;
    std::vector<LibraryRow> expected = {LibraryRow::album(0),
                                        LibraryRow::track(albums[0].discs[0].tracks[0], 0),
                                        LibraryRow::track(albums[0].discs[0].tracks[1], 0),
                                        LibraryRow::track(albums[0].discs[0].tracks[2], 0),
                                        LibraryRow::filler(0),
                                        LibraryRow::spacer(),
                                        LibraryRow::album(1),
                                        LibraryRow::disc(1, 1),
                                        LibraryRow::track(g[0].tracks[0], 1),
                                        LibraryRow::track(g[0].tracks[1], 1),
                                        LibraryRow::disc(1, 2),
                                        LibraryRow::track(g[1].tracks[0], 1),
                                        LibraryRow::spacer(),
                                        LibraryRow::album(2),
                                        LibraryRow::track(albums[2].discs[0].tracks[0], 2),
                                        LibraryRow::filler(2),
                                        LibraryRow::filler(2),
                                        LibraryRow::filler(2)};
    EXPECT_EQ(rows, expected);
    EXPECT_EQ(g[0].tracks[0].path, "/c2");
    EXPECT_EQ(rows[4].albumIndex(), 0);
    EXPECT_EQ(rows[5].albumIndex(), std::nullopt);

    // No padding when the minimum is negative or already met.
    EXPECT_EQ(index.libraryRows(0, -3).size(), 14u);
    EXPECT_TRUE(index.libraryRows(1, 8).empty());
}

TEST(LibraryIndex, EqualNumbersOrderByFoldedTitleThenInput) {
    auto index = LibraryIndex({track("/a", "X", "Y", 1, 0, 0, "", "track 10"),
                               track("/b", "X", "Y", 1, 0, 0, "", "Track 2"),
                               track("/c", "X", "Y", 1, 0, 0, "", "TRACK 2")});
    EXPECT_EQ(each(index.artists[0].albums[0].tracks(), [](const Track& t) { return t.path; }),
              (std::vector<std::string>{"/b", "/c", "/a"}));
}
