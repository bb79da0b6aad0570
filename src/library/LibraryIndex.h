// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The collection grouped as the screen shows it: artists, their albums, discs and
// tracks, in display order, plus the flat rows of the artist and album panes. Tracks are
// numbers into the index's TrackTable and names are views into it; the index hands out a
// Track value on demand.

#include "library/Track.h"
#include "library/TrackTable.h"

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

namespace trovan {

// One row of the album pane for the selected artist.
struct LibraryRow {
    // The album's heading.
    struct Album {
        int album = 0; // index into the artist's albums
        bool operator==(const Album&) const = default;
    };
    // A disc heading; only albums with more than one disc have them.
    struct Disc {
        int album = 0;
        int64_t number = 0;
        bool operator==(const Disc&) const = default;
    };
    struct Track {
        TrackTable::Id id = 0; // the track, in the index that made the row
        int album = 0;
        bool operator==(const Track&) const = default;
    };
    // Empty row padding a short album up to the cover's height.
    struct Filler {
        int album = 0;
        bool operator==(const Filler&) const = default;
    };
    // Empty row between two albums.
    struct Spacer {
        bool operator==(const Spacer&) const = default;
    };

    std::variant<Album, Disc, Track, Filler, Spacer> value;

    bool operator==(const LibraryRow&) const = default;

    static LibraryRow album(int album) { return {Album{album}}; }
    static LibraryRow disc(int album, int64_t number) { return {Disc{album, number}}; }
    static LibraryRow track(TrackTable::Id id, int album) { return {Track{id, album}}; }
    static LibraryRow filler(int album) { return {Filler{album}}; }
    static LibraryRow spacer() { return {Spacer{}}; }

    template <class Case> bool is() const { return std::holds_alternative<Case>(value); }
    template <class Case> const Case* get() const { return std::get_if<Case>(&value); }
    // The album the row belongs to; none for spacers.
    std::optional<int> albumIndex() const;
};

// One row of the artist pane: a heading letter or an artist.
struct ArtistRow {
    struct Letter {
        std::string letter; // "A" to "Z" or "#"
        bool operator==(const Letter&) const = default;
    };
    struct Artist {
        int artist = 0; // index into LibraryIndex::artists
        bool operator==(const Artist&) const = default;
    };

    // A saved play list, listed after the artists.
    struct Playlist {
        std::string name;
        bool operator==(const Playlist&) const = default;
    };

    std::variant<Letter, Artist, Playlist> value;

    bool operator==(const ArtistRow&) const = default;

    static ArtistRow letter(std::string l) { return {Letter{std::move(l)}}; }
    static ArtistRow artist(int index) { return {Artist{index}}; }
    static ArtistRow playlist(std::string name) { return {Playlist{std::move(name)}}; }

    template <class Case> bool is() const { return std::holds_alternative<Case>(value); }
    template <class Case> const Case* get() const { return std::get_if<Case>(&value); }
};

struct LibraryIndex {
    using TrackId = TrackTable::Id;
    struct Disc {
        int64_t number = 1; // 1 or more
        std::vector<TrackId> tracks;
        bool operator==(const Disc&) const = default;
    };
    struct Album {
        std::string_view title;
        int64_t year = 0; // 0 when unknown
        std::vector<Disc> discs;
        std::optional<std::string_view> codec; // only when every track has the same codec
        bool operator==(const Album&) const = default;

        // The tracks of every disc, in disc order.
        std::vector<TrackId> tracks() const;
    };
    struct Artist {
        std::string_view name; // as the first of its tracks spells it
        std::string key;       // folded grouping key, unique in the index
        std::string letter;    // "A" to "Z" or "#"
        std::vector<Album> albums;
        bool operator==(const Artist&) const = default;
    };

    std::vector<Artist> artists;
    int trackCount = 0;

    // The index with no artists.
    LibraryIndex();
    explicit LibraryIndex(const std::vector<trovan::Track>& tracks);
    explicit LibraryIndex(TrackTable table);
    static const LibraryIndex& empty();

    // The record of a track of this index.
    trovan::Track track(TrackId id) const { return table_->track(id); }
    const TrackTable& table() const { return *table_; }
    // The track with this path, if the index has it.
    std::optional<trovan::Track> find(std::string_view path) const;
    bool contains(std::string_view path) const { return table_->find(path).has_value(); }

    // Rows of the album pane for artist `artist`; every album block is padded with
    // filler rows up to `minimumAlbumHeight` rows. Empty for an invalid index.
    std::vector<LibraryRow> libraryRows(int artist, int minimumAlbumHeight) const;
    // Letter headings and artists, the "#" group last.
    std::vector<ArtistRow> artistRows() const;

    // Heading letter of a folded key: its first character upper-cased if that is A-Z,
    // otherwise "#".
    static std::string letterFor(std::string_view key);

private:
    std::shared_ptr<const TrackTable> table_;
};

inline constexpr std::string_view kUnknownAlbum = "Álbum desconocido";

} // namespace trovan
