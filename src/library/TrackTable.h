// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Every track of the library in compact form, for collections of a million files: one
// record of 72 bytes per track, file name and title bytes in a shared arena, folder,
// artist, album, genre and codec names stored once and referred to by number, numbers
// packed to 32 or 16 bits (the rare value that does not fit is kept aside, so nothing is
// lost). A Track value is made on demand. Filled once, then only read (safe from several
// threads).

#include "library/Track.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace trovan {

class TrackTable {
public:
    using Id = uint32_t;
    using NameId = uint32_t; // 0 is the empty name

    // A record's fields as borrowed text, so a loader can add rows without building a
    // Track first.
    struct Fields {
        std::string_view path, title, artist, albumArtist, album, genre, codec;
        double mtime = 0;
        int64_t size = 0, year = 0, trackNumber = 0, discNumber = 0, durationMs = 0, sampleRate = 0,
                bitrate = 0, channels = 0;
        ReplayGain replayGain;
    };

    TrackTable();
    ~TrackTable();
    TrackTable(TrackTable&&) noexcept;
    TrackTable& operator=(TrackTable&&) noexcept;
    TrackTable(const TrackTable&) = delete;
    TrackTable& operator=(const TrackTable&) = delete;

    Id add(const Fields& fields);
    Id add(const Track& track);
    // Ends filling (nothing may be added afterwards): drops what only adding needs and
    // builds the path lookup.
    void seal() {
        finishAdding();
        buildLookup();
    }
    // The two halves of seal(). Once adding is finished, building the lookup may run on
    // one thread while others read the records.
    void finishAdding();
    void buildLookup();

    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }

    Track track(Id id) const;
    std::string path(Id id) const;
    bool hasPath(Id id, std::string_view path) const;
    std::string_view title(Id id) const;
    // Title, else the file name without its extension.
    std::string_view displayTitle(Id id) const;
    NameId artist(Id id) const { return record(id).names[kArtist]; }
    NameId albumArtist(Id id) const { return record(id).names[kAlbumArtist]; }
    NameId album(Id id) const { return record(id).names[kAlbum]; }
    NameId codec(Id id) const { return record(id).names[kCodec]; }
    std::string_view fileName(Id id) const;
    int64_t year(Id id) const { return number(id, kYear); }
    int64_t trackNumber(Id id) const { return number(id, kTrackNumber); }
    int64_t discNumber(Id id) const { return number(id, kDiscNumber); }
    int64_t durationMs(Id id) const { return number(id, kDurationMs); }

    std::string_view name(NameId id) const { return names_[id]; }
    std::size_t nameCount() const { return names_.size(); }

    // The first track added with this path; always none before the lookup is built.
    std::optional<Id> find(std::string_view path) const;

private:
    enum NameField { kArtist, kAlbumArtist, kAlbum, kGenre, kCodec, kFolder, kNameFields };
    // Numbers in 32 bits, then those that are small in 16.
    enum NumberField {
        kSize,
        kDurationMs,
        kSampleRate,
        kBitrate,
        kYear,
        kTrackNumber,
        kDiscNumber,
        kChannels,
        kNumberFields
    };
    static constexpr int kLargeFields = kYear;
    // Filled field by field by add(); left uninitialised until then.
    struct Record {
        const char* text; // file name bytes, then title bytes
        uint32_t nameLength;
        uint32_t titleLength;
        double mtime;
        NameId names[kNameFields];
        int32_t large[kLargeFields];                 // INT32_MIN: the value is in wide_
        int16_t small[kNumberFields - kLargeFields]; // INT16_MIN: the value is in wide_
    };
    static_assert(sizeof(Record) == 72);
    static constexpr std::size_t kRecordsPerBlock = 1 << 14;

    const Record& record(Id id) const {
        return blocks_[id / kRecordsPerBlock][id % kRecordsPerBlock];
    }
    int64_t number(Id id, NumberField field) const {
        const Record& r = record(id);
        if (field < kLargeFields) {
            const int32_t v = r.large[field];
            return v == INT32_MIN ? wide_.at(wideKey(id, field)) : v;
        }
        const int16_t v = r.small[field - kLargeFields];
        return v == INT16_MIN ? wide_.at(wideKey(id, field)) : v;
    }
    static uint64_t wideKey(Id id, NumberField field) {
        return uint64_t{id} * kNumberFields + field;
    }
    const char* store(std::string_view a, std::string_view b);
    NameId intern(std::string_view s, NameField field);
    NameId internAnew(std::string_view s);

    std::vector<std::unique_ptr<Record[]>> blocks_;
    std::size_t count_ = 0;
    std::vector<std::unique_ptr<char[]>> chunks_; // the arena
    std::size_t chunkUsed_ = 0, chunkSize_ = 0;
    std::size_t arenaBytes_ = 0;
    std::vector<std::string_view> names_; // into the arena
    // While filling only: open addressing on the names, each slot the upper half of the
    // name's hash and its number (0: free).
    std::vector<uint64_t> nameSlots_;
    std::size_t namesHashed_ = 0;
    NameId lastName_[kNameFields] = {};          // neighbouring rows mostly repeat their names
    std::unordered_map<uint64_t, int64_t> wide_; // numbers too wide for their packed field
    std::unordered_map<Id, ReplayGain> gains_;   // only the tracks that have loudness tags
    std::vector<Id> byPath_; // open addressing on the path's hash; kNone when free
};

} // namespace trovan
