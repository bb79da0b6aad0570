// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/LibraryIndex.h"

#include "text/Text.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <map>
#include <span>
#include <thread>
#include <unordered_map>

namespace trovan {

namespace {

using Id = TrackTable::Id;

// Orders a disc's tracks by number, then by folded display title. Titles are folded
// only for tracks that share a number with another.
void sortDisc(const TrackTable& table, std::vector<Id>& tracks) {
    std::stable_sort(tracks.begin(), tracks.end(),
                     [&](Id a, Id b) { return table.trackNumber(a) < table.trackNumber(b); });
    std::vector<std::pair<std::string, Id>> run;
    for (std::size_t start = 0; start < tracks.size();) {
        const int64_t number = table.trackNumber(tracks[start]);
        std::size_t end = start + 1;
        while (end < tracks.size() && table.trackNumber(tracks[end]) == number)
            ++end;
        if (end - start > 1) {
            run.clear();
            for (auto i = start; i < end; ++i)
                run.emplace_back(text::fold(table.displayTitle(tracks[i])), tracks[i]);
            std::stable_sort(run.begin(), run.end(), [](const auto& a, const auto& b) {
                return text::compareNumeric(a.first, b.first) < 0;
            });
            for (auto i = start; i < end; ++i)
                tracks[i] = run[i - start].second;
        }
        start = end;
    }
}

LibraryIndex::Album makeAlbum(const TrackTable& table, std::span<const Id> members) {
    LibraryIndex::Album album;
    const Id first = members.front();
    album.title = table.album(first) ? table.name(table.album(first)) : kUnknownAlbum;

    int64_t year = 0;
    bool oneCodec = true, oneDisc = true;
    const auto firstCodec = table.codec(first);
    const int64_t firstDisc = std::max<int64_t>(table.discNumber(first), 1);
    for (auto i : members) {
        const int64_t y = table.year(i);
        if (y > 0 && (year == 0 || y < year)) year = y;
        oneCodec = oneCodec && table.codec(i) == firstCodec;
        oneDisc = oneDisc && std::max<int64_t>(table.discNumber(i), 1) == firstDisc;
    }
    album.year = year;
    if (oneCodec) album.codec = table.name(firstCodec);

    if (oneDisc) { // the common case needs no grouping
        LibraryIndex::Disc disc{firstDisc, {members.begin(), members.end()}};
        sortDisc(table, disc.tracks);
        album.discs.push_back(std::move(disc));
        return album;
    }
    std::map<int64_t, std::vector<Id>> discs;
    for (auto i : members)
        discs[std::max<int64_t>(table.discNumber(i), 1)].push_back(i);
    album.discs.reserve(discs.size());
    for (auto& [number, tracks] : discs) {
        sortDisc(table, tracks);
        album.discs.push_back({number, std::move(tracks)});
    }
    return album;
}

// Stable bucket sort of 0..keys.size()-1 by key (keys below `buckets`): the members of
// each bucket in input order, and where each bucket starts (buckets + 1 entries).
void bucket(const std::vector<uint32_t>& keys, std::size_t buckets, std::vector<Id>& order,
            std::vector<std::size_t>& starts) {
    starts.assign(buckets + 1, 0);
    for (auto k : keys)
        ++starts[k + 1];
    for (std::size_t b = 0; b < buckets; ++b)
        starts[b + 1] += starts[b];
    order.resize(keys.size());
    std::vector<std::size_t> next(starts.begin(), starts.end() - 1);
    for (std::size_t i = 0; i < keys.size(); ++i)
        order[next[keys[i]]++] = static_cast<Id>(i);
}

std::shared_ptr<const TrackTable> emptyTable() {
    static const auto table = [] {
        auto t = std::make_shared<TrackTable>();
        t->seal();
        return std::shared_ptr<const TrackTable>(std::move(t));
    }();
    return table;
}

TrackTable tableOf(const std::vector<Track>& tracks) {
    TrackTable table;
    for (const auto& t : tracks)
        table.add(t);
    return table;
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

std::vector<LibraryIndex::TrackId> LibraryIndex::Album::tracks() const {
    std::vector<TrackId> out;
    for (const auto& disc : discs)
        out.insert(out.end(), disc.tracks.begin(), disc.tracks.end());
    return out;
}

const LibraryIndex& LibraryIndex::empty() {
    static const LibraryIndex index;
    return index;
}

LibraryIndex::LibraryIndex() : table_(emptyTable()) {}

LibraryIndex::LibraryIndex(const std::vector<Track>& tracks) : LibraryIndex(tableOf(tracks)) {}

std::optional<Track> LibraryIndex::find(std::string_view path) const {
    if (auto id = table_->find(path)) return table_->track(*id);
    return std::nullopt;
}

LibraryIndex::LibraryIndex(TrackTable source) {
    source.finishAdding();
    auto shared = std::make_shared<TrackTable>(std::move(source));
    table_ = shared;
    // The path lookup is built beside the grouping below, which only reads the records.
    std::exception_ptr lookupFailed;
    std::jthread lookup([&shared, &lookupFailed] {
        try {
            shared->buildLookup();
        } catch (...) {
            lookupFailed = std::current_exception();
        }
    });
    const TrackTable& table = *shared;
    const std::size_t n = table.size();
    trackCount = static_cast<int>(n);

    // Folding is the costly step of building; a library repeats the same artist and
    // album names over and over, so each distinct name is folded once. The pseudo-name
    // `unknown` stands for a missing one.
    const auto unknown = static_cast<TrackTable::NameId>(table.nameCount());
    std::vector<int32_t> artistOfName(table.nameCount() + 1, -1);
    std::vector<int32_t> albumOfName(table.nameCount() + 1, -1);
    std::unordered_map<std::string, uint32_t> artistKeys, albumKeys;
    std::vector<std::string_view> albumKeyText; // folded album titles, by key number

    std::vector<uint32_t> artistOf(n), albumKeyOf(n);
    for (Id i = 0; i < n; ++i) {
        auto g = table.albumArtist(i) ? table.albumArtist(i) : table.artist(i);
        if (!g) g = unknown;
        int32_t& a = artistOfName[g];
        if (a < 0) {
            const std::string_view name = g == unknown ? kUnknownArtist : table.name(g);
            auto [it, added] =
                artistKeys.try_emplace(text::fold(name), static_cast<uint32_t>(artists.size()));
            if (added) {
                Artist artist;
                artist.name = name;
                artist.key = it->first;
                artist.letter = letterFor(artist.key);
                artists.push_back(std::move(artist));
            }
            a = static_cast<int32_t>(it->second);
        }
        artistOf[i] = static_cast<uint32_t>(a);

        const auto al = table.album(i) ? table.album(i) : unknown;
        int32_t& k = albumOfName[al];
        if (k < 0) {
            const std::string_view title = al == unknown ? kUnknownAlbum : table.name(al);
            auto [it, added] = albumKeys.try_emplace(text::fold(title),
                                                     static_cast<uint32_t>(albumKeyText.size()));
            if (added) albumKeyText.push_back(it->first);
            k = static_cast<int32_t>(it->second);
        }
        albumKeyOf[i] = static_cast<uint32_t>(k);
    }
    artistOfName = {};
    albumOfName = {};

    std::vector<Id> byArtist;
    std::vector<std::size_t> artistStart;
    bucket(artistOf, artists.size(), byArtist, artistStart);
    artistOf = {};

    // Per artist: albums in order of first appearance, then their members.
    std::vector<int32_t> slotOfKey(albumKeyText.size(), -1);
    std::vector<uint32_t> slotOf, groupKeys;
    std::vector<Id> grouped;
    std::vector<std::size_t> groupStart;
    for (std::size_t a = 0; a < artists.size(); ++a) {
        const std::span<const Id> members(byArtist.data() + artistStart[a],
                                          artistStart[a + 1] - artistStart[a]);
        groupKeys.clear();
        slotOf.resize(members.size());
        for (std::size_t m = 0; m < members.size(); ++m) {
            const auto key = albumKeyOf[members[m]];
            if (slotOfKey[key] < 0) {
                slotOfKey[key] = static_cast<int32_t>(groupKeys.size());
                groupKeys.push_back(key);
            }
            slotOf[m] = static_cast<uint32_t>(slotOfKey[key]);
        }
        for (auto key : groupKeys)
            slotOfKey[key] = -1;
        std::vector<Id> local;
        bucket(slotOf, groupKeys.size(), local, groupStart);
        grouped.resize(local.size());
        for (std::size_t m = 0; m < local.size(); ++m)
            grouped[m] = members[local[m]];

        // Folded title travels with each album for sorting.
        std::vector<std::pair<std::string_view, Album>> albums;
        albums.reserve(groupKeys.size());
        for (std::size_t g = 0; g < groupKeys.size(); ++g)
            albums.emplace_back(
                albumKeyText[groupKeys[g]],
                makeAlbum(table, std::span<const Id>(grouped.data() + groupStart[g],
                                                     groupStart[g + 1] - groupStart[g])));
        std::stable_sort(albums.begin(), albums.end(), [](const auto& x, const auto& y) {
            auto yx = x.second.year == 0 ? INT64_MAX : x.second.year;
            auto yy = y.second.year == 0 ? INT64_MAX : y.second.year;
            if (yx != yy) return yx < yy;
            return text::compareNumeric(x.first, y.first) < 0;
        });
        auto& out = artists[a].albums;
        out.reserve(albums.size());
        for (auto& x : albums)
            out.push_back(std::move(x.second));
    }

    std::stable_sort(artists.begin(), artists.end(), [](const Artist& a, const Artist& b) {
        bool ha = a.letter == "#", hb = b.letter == "#";
        if (ha != hb) return hb;
        return text::compareNumeric(a.key, b.key) < 0;
    });
    lookup.join();
    if (lookupFailed) std::rethrow_exception(lookupFailed);
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
            for (auto id : disc.tracks)
                rows.push_back(LibraryRow::track(id, i));
        }
        auto n = static_cast<int64_t>(rows.size() - blockStart);
        for (int64_t k = n; k < minimumAlbumHeight; ++k)
            rows.push_back(LibraryRow::filler(i));
    }
    return rows;
}

} // namespace trovan
