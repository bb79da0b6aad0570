#include "library/LibraryIndex.h"

#include "text/Text.h"

#include <algorithm>
#include <climits>
#include <map>

namespace trovan {

namespace {

std::string_view groupArtistOf(const Track& t) {
    if (!t.albumArtist.empty()) return t.albumArtist;
    if (!t.artist.empty()) return t.artist;
    return kUnknownArtist;
}

std::string_view albumTitleOf(const Track& t) {
    return t.album.empty() ? kUnknownAlbum : std::string_view(t.album);
}

// Folding is the costly step of building; a library repeats the same artist and album
// names over and over, so each distinct name is folded once.
class FoldCache {
public:
    const std::string& operator()(std::string_view s) {
        auto it = cache_.find(s);
        if (it == cache_.end()) it = cache_.emplace(std::string(s), text::fold(s)).first;
        return it->second;
    }

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const noexcept {
            return std::hash<std::string_view>{}(s);
        }
    };
    std::unordered_map<std::string, std::string, Hash, std::equal_to<>> cache_;
};

template <class Key> struct Group {
    Key key;
    std::vector<std::size_t> members; // indices into the track list, input order
};

// Groups indices by key, groups in order of first appearance.
template <class KeyOf> auto groupBy(const std::vector<std::size_t>& indices, KeyOf keyOf) {
    using Key = std::decay_t<decltype(keyOf(std::size_t{}))>;
    std::vector<Group<Key>> groups;
    std::unordered_map<Key, std::size_t> where;
    for (auto i : indices) {
        auto key = keyOf(i);
        auto [it, inserted] = where.try_emplace(key, groups.size());
        if (inserted) groups.push_back({std::move(key), {}});
        groups[it->second].members.push_back(i);
    }
    return groups;
}

// Orders a disc's tracks by number, then by folded display title. Titles are folded
// only for tracks that share a number with another.
void sortDisc(std::vector<Track>& tracks) {
    std::stable_sort(tracks.begin(), tracks.end(),
                     [](const Track& a, const Track& b) { return a.trackNumber < b.trackNumber; });
    for (std::size_t start = 0; start < tracks.size();) {
        std::size_t end = start + 1;
        while (end < tracks.size() && tracks[end].trackNumber == tracks[start].trackNumber)
            ++end;
        if (end - start > 1) {
            std::vector<std::pair<std::string, Track>> run;
            run.reserve(end - start);
            for (auto i = start; i < end; ++i)
                run.emplace_back(text::fold(tracks[i].displayTitle()), std::move(tracks[i]));
            std::stable_sort(run.begin(), run.end(), [](const auto& a, const auto& b) {
                return text::compareNumeric(a.first, b.first) < 0;
            });
            for (auto i = start; i < end; ++i)
                tracks[i] = std::move(run[i - start].second);
        }
        start = end;
    }
}

LibraryIndex::Album makeAlbum(std::vector<Track>& all, const std::vector<std::size_t>& members) {
    LibraryIndex::Album album;
    album.title = std::string(albumTitleOf(all[members.front()]));

    int64_t year = 0;
    bool oneCodec = true, oneDisc = true;
    const std::string& firstCodec = all[members.front()].codec;
    const int64_t firstDisc = std::max<int64_t>(all[members.front()].discNumber, 1);
    for (auto i : members) {
        const Track& t = all[i];
        if (t.year > 0 && (year == 0 || t.year < year)) year = t.year;
        oneCodec = oneCodec && t.codec == firstCodec;
        oneDisc = oneDisc && std::max<int64_t>(t.discNumber, 1) == firstDisc;
    }
    album.year = year;
    if (oneCodec) album.codec = firstCodec;

    if (oneDisc) { // the common case needs no grouping
        LibraryIndex::Disc disc{firstDisc, {}};
        disc.tracks.reserve(members.size());
        for (auto i : members)
            disc.tracks.push_back(std::move(all[i]));
        sortDisc(disc.tracks);
        album.discs.push_back(std::move(disc));
        return album;
    }
    std::map<int64_t, std::vector<Track>> discs;
    for (auto i : members) {
        auto number = std::max<int64_t>(all[i].discNumber, 1);
        discs[number].push_back(std::move(all[i]));
    }
    album.discs.reserve(discs.size());
    for (auto& [number, tracks] : discs) {
        sortDisc(tracks);
        album.discs.push_back({number, std::move(tracks)});
    }
    return album;
}

} // namespace

std::optional<int> LibraryRow::albumIndex() const {
    return std::visit(
        [](const auto& row) -> std::optional<int> {
            if constexpr (std::is_same_v<std::decay_t<decltype(row)>, Spacer>)
                return std::nullopt;
            else
                return row.album;
        },
        value);
}

std::vector<Track> LibraryIndex::Album::tracks() const {
    std::vector<Track> out;
    for (const auto& disc : discs)
        out.insert(out.end(), disc.tracks.begin(), disc.tracks.end());
    return out;
}

const LibraryIndex& LibraryIndex::empty() {
    static const LibraryIndex index;
    return index;
}

LibraryIndex::LibraryIndex(std::vector<Track> tracks) {
    trackCount = static_cast<int>(tracks.size());
    tracksByPath.reserve(tracks.size());
    for (const auto& t : tracks)
        tracksByPath.emplace(t.path, t);

    FoldCache fold;
    std::vector<std::size_t> all(tracks.size());
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i] = i;

    auto artistGroups =
        groupBy(all, [&](std::size_t i) -> std::string { return fold(groupArtistOf(tracks[i])); });

    artists.reserve(artistGroups.size());
    for (auto& group : artistGroups) {
        Artist artist;
        artist.name = std::string(groupArtistOf(tracks[group.members.front()]));
        artist.key = std::string(group.key);
        artist.letter = letterFor(artist.key);

        auto albumGroups = groupBy(group.members, [&](std::size_t i) -> std::string_view {
            return fold(albumTitleOf(tracks[i]));
        });
        // Folded title travels with each album for sorting.
        std::vector<std::pair<std::string_view, Album>> albums;
        albums.reserve(albumGroups.size());
        for (auto& ag : albumGroups)
            albums.emplace_back(ag.key, makeAlbum(tracks, ag.members));
        std::stable_sort(albums.begin(), albums.end(), [](const auto& a, const auto& b) {
            auto ya = a.second.year == 0 ? INT64_MAX : a.second.year;
            auto yb = b.second.year == 0 ? INT64_MAX : b.second.year;
            if (ya != yb) return ya < yb;
            return text::compareNumeric(a.first, b.first) < 0;
        });
        artist.albums.reserve(albums.size());
        for (auto& a : albums)
            artist.albums.push_back(std::move(a.second));
        artists.push_back(std::move(artist));
    }

    std::stable_sort(artists.begin(), artists.end(), [](const Artist& a, const Artist& b) {
        bool ha = a.letter == "#", hb = b.letter == "#";
        if (ha != hb) return hb;
        return text::compareNumeric(a.key, b.key) < 0;
    });
}

std::string LibraryIndex::letterFor(std::string_view key) {
    if (key.empty()) return "#";
    text::Graphemes clusters(key);
    std::string_view first;
    if (!clusters.next(first)) return "#";
    auto up = text::upper(first);
    if (text::graphemeCount(up) != 1) return "#";
    auto c = text::firstScalar(up);
    if (c >= 'A' && c <= 'Z') return std::string(1, static_cast<char>(c));
    return "#";
}

std::vector<ArtistRow> LibraryIndex::artistRows() const {
    std::vector<ArtistRow> rows;
    rows.reserve(artists.size() + 27);
    const std::string* heading = nullptr;
    for (std::size_t i = 0; i < artists.size(); ++i) {
        if (!heading || *heading != artists[i].letter) {
            heading = &artists[i].letter;
            rows.push_back(ArtistRow::letter(*heading));
        }
        rows.push_back(ArtistRow::artist(static_cast<int>(i)));
    }
    return rows;
}

std::vector<LibraryRow> LibraryIndex::libraryRows(int artist, int minimumAlbumHeight) const {
    std::vector<LibraryRow> rows;
    if (artist < 0 || static_cast<std::size_t>(artist) >= artists.size()) return rows;
    const auto& albums = artists[static_cast<std::size_t>(artist)].albums;
    for (std::size_t a = 0; a < albums.size(); ++a) {
        int i = static_cast<int>(a);
        if (a > 0) rows.push_back(LibraryRow::spacer());
        auto blockStart = rows.size();
        rows.push_back(LibraryRow::album(i));
        const auto& album = albums[a];
        for (const auto& disc : album.discs) {
            if (album.discs.size() > 1) rows.push_back(LibraryRow::disc(i, disc.number));
            for (const auto& t : disc.tracks)
                rows.push_back(LibraryRow::track(t, i));
        }
        auto n = static_cast<int64_t>(rows.size() - blockStart);
        for (int64_t k = n; k < minimumAlbumHeight; ++k)
            rows.push_back(LibraryRow::filler(i));
    }
    return rows;
}

} // namespace trovan
