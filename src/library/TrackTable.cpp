// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/TrackTable.h"

#include <cstring>
#include <functional>
#include <stdexcept>

namespace trovan {

namespace {

constexpr std::size_t kChunkBytes = std::size_t{4} << 20;
constexpr TrackTable::Id kNone = UINT32_MAX;

// A path split after its last "/": the folder (kept once for all its files) and the
// file name. No "/" at all: the whole path is the name.
std::pair<std::string_view, std::string_view> split(std::string_view path) {
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos) return {{}, path};
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

std::size_t folderHashOf(std::string_view folder) {
    return std::hash<std::string_view>{}(folder)*0x9e3779b97f4a7c15ULL;
}

std::size_t combine(std::size_t folderHash, std::string_view name) {
    return folderHash ^ std::hash<std::string_view>{}(name);
}

} // namespace

TrackTable::TrackTable() {
    names_.emplace_back();
}

TrackTable::~TrackTable() = default;
TrackTable::TrackTable(TrackTable&&) noexcept = default;
TrackTable& TrackTable::operator=(TrackTable&&) noexcept = default;

const char* TrackTable::store(std::string_view a, std::string_view b) {
    const std::size_t n = a.size() + b.size();
    if (n == 0) return nullptr;
    char* at;
    if (n > kChunkBytes / 8) {
        // A huge text gets a block of its own, so the shared one is not cut short.
        chunks_.push_back(std::make_unique_for_overwrite<char[]>(n));
        at = chunks_.back().get();
        // Keep filling the shared block, now one before the last.
        if (chunks_.size() > 1 && chunkSize_ > 0) std::swap(chunks_.back(), chunks_.end()[-2]);
    } else {
        if (chunkSize_ - chunkUsed_ < n) {
            chunks_.push_back(std::make_unique_for_overwrite<char[]>(kChunkBytes));
            chunkSize_ = kChunkBytes;
            chunkUsed_ = 0;
        }
        at = chunks_.back().get() + chunkUsed_;
        chunkUsed_ += n;
    }
    if (!a.empty()) std::memcpy(at, a.data(), a.size());
    if (!b.empty()) std::memcpy(at + a.size(), b.data(), b.size());
    arenaBytes_ += n;
    return at;
}

TrackTable::NameId TrackTable::intern(std::string_view s, NameField field) {
    NameId& last = lastName_[field];
    if (names_[last] == s) return last;
    last = internAnew(s);
    return last;
}

TrackTable::NameId TrackTable::internAnew(std::string_view s) {
    if (s.empty()) return 0;
    if (nameSlots_.empty()) nameSlots_.assign(1024, 0);
    const auto hash = static_cast<uint32_t>(std::hash<std::string_view>{}(s) >> 32);
    std::size_t mask = nameSlots_.size() - 1;
    std::size_t slot = hash & mask;
    for (; nameSlots_[slot] != 0; slot = (slot + 1) & mask) {
        const uint64_t entry = nameSlots_[slot];
        const auto id = static_cast<NameId>(entry);
        if (entry >> 32 == hash && names_[id] == s) return id;
    }
    if (names_.size() >= kNone) throw std::length_error("too many names");
    const auto id = static_cast<NameId>(names_.size());
    names_.emplace_back(store(s, {}), s.size());
    nameSlots_[slot] = uint64_t{hash} << 32 | id;
    if (++namesHashed_ * 2 > nameSlots_.size()) {
        std::vector<uint64_t> grown(nameSlots_.size() * 2, 0);
        mask = grown.size() - 1;
        for (const uint64_t entry : nameSlots_) {
            if (entry == 0) continue;
            std::size_t at = (entry >> 32) & mask;
            while (grown[at] != 0)
                at = (at + 1) & mask;
            grown[at] = entry;
        }
        nameSlots_ = std::move(grown);
    }
    return id;
}

TrackTable::Id TrackTable::add(const Fields& f) {
    if (count_ >= kNone - 1) throw std::length_error("too many tracks");
    // Lengths are kept in 32 bits; nothing real comes near, a damaged cache is cut.
    const auto [folder, fileName] = split(f.path);
    const auto name = fileName.substr(0, UINT32_MAX);
    const auto title = f.title.substr(0, UINT32_MAX - name.size());
    const auto id = static_cast<Id>(count_);
    // Not zeroed: the pages of a block are only touched as records fill it.
    if (id % kRecordsPerBlock == 0)
        blocks_.push_back(std::make_unique_for_overwrite<Record[]>(kRecordsPerBlock));
    Record& r = blocks_.back()[id % kRecordsPerBlock];
    r.text = store(name, title);
    r.nameLength = static_cast<uint32_t>(name.size());
    r.titleLength = static_cast<uint32_t>(title.size());
    r.mtime = f.mtime;
    r.names[kArtist] = intern(f.artist, kArtist);
    r.names[kAlbumArtist] = intern(f.albumArtist, kAlbumArtist);
    r.names[kAlbum] = intern(f.album, kAlbum);
    r.names[kGenre] = intern(f.genre, kGenre);
    r.names[kCodec] = intern(f.codec, kCodec);
    r.names[kFolder] = intern(folder, kFolder);
    const int64_t numbers[kNumberFields] = {f.size, f.durationMs,  f.sampleRate, f.bitrate,
                                            f.year, f.trackNumber, f.discNumber, f.channels};
    for (int i = 0; i < kNumberFields; ++i) {
        const int64_t v = numbers[i];
        const bool large = i < kLargeFields;
        const bool fits = large ? v > INT32_MIN && v <= INT32_MAX : v > INT16_MIN && v <= INT16_MAX;
        const int64_t kept = fits ? v : large ? INT32_MIN : INT16_MIN;
        if (large)
            r.large[i] = static_cast<int32_t>(kept);
        else
            r.small[i - kLargeFields] = static_cast<int16_t>(kept);
        if (!fits) wide_[wideKey(id, static_cast<NumberField>(i))] = v;
    }
    if (!f.replayGain.empty()) gains_[id] = f.replayGain;
    ++count_;
    return id;
}

TrackTable::Id TrackTable::add(const Track& t) {
    return add(Fields{t.path, t.title, t.artist, t.albumArtist, t.album, t.genre, t.codec, t.mtime,
                      t.size, t.year, t.trackNumber, t.discNumber, t.durationMs, t.sampleRate,
                      t.bitrate, t.channels, t.replayGain});
}

void TrackTable::finishAdding() {
    nameSlots_ = {};
    namesHashed_ = 0;
}

void TrackTable::buildLookup() {
    // A folder's hash is worked out once for all its files.
    std::vector<std::size_t> folderHash(names_.size(), 0);
    std::vector<bool> hashed(names_.size(), false);
    std::size_t capacity = 16;
    while (capacity < count_ * 2)
        capacity *= 2;
    byPath_.assign(capacity, kNone);
    const std::size_t mask = capacity - 1;
    for (Id id = 0; id < count_; ++id) {
        const auto folder = record(id).names[kFolder];
        const auto name = fileName(id);
        if (!hashed[folder]) {
            folderHash[folder] = folderHashOf(names_[folder]);
            hashed[folder] = true;
        }
        for (std::size_t slot = combine(folderHash[folder], name) & mask;;
             slot = (slot + 1) & mask) {
            const Id other = byPath_[slot];
            if (other == kNone) {
                byPath_[slot] = id;
                break;
            }
            // The first one of a path stays.
            if (record(other).names[kFolder] == folder && fileName(other) == name) break;
        }
    }
}

std::optional<TrackTable::Id> TrackTable::find(std::string_view p) const {
    if (byPath_.empty()) return std::nullopt;
    const std::size_t mask = byPath_.size() - 1;
    const auto [folder, name] = split(p);
    for (std::size_t slot = combine(folderHashOf(folder), name) & mask; byPath_[slot] != kNone;
         slot = (slot + 1) & mask)
        if (hasPath(byPath_[slot], p)) return byPath_[slot];
    return std::nullopt;
}

std::string_view TrackTable::fileName(Id id) const {
    const Record& r = record(id);
    return {r.text, r.nameLength};
}

std::string TrackTable::path(Id id) const {
    const auto folder = names_[record(id).names[kFolder]];
    const auto name = fileName(id);
    std::string out;
    out.reserve(folder.size() + name.size());
    out.append(folder).append(name);
    return out;
}

bool TrackTable::hasPath(Id id, std::string_view p) const {
    const auto folder = names_[record(id).names[kFolder]];
    const auto name = fileName(id);
    return p.size() == folder.size() + name.size() && p.starts_with(folder) && p.ends_with(name);
}

std::string_view TrackTable::title(Id id) const {
    const Record& r = record(id);
    return r.titleLength ? std::string_view(r.text + r.nameLength, r.titleLength)
                         : std::string_view{};
}

std::string_view TrackTable::displayTitle(Id id) const {
    return Track::displayTitleOf(fileName(id), title(id));
}

Track TrackTable::track(Id id) const {
    const Record& r = record(id);
    Track t;
    t.path = path(id);
    t.mtime = r.mtime;
    t.size = number(id, kSize);
    t.title = title(id);
    t.artist = names_[r.names[kArtist]];
    t.albumArtist = names_[r.names[kAlbumArtist]];
    t.album = names_[r.names[kAlbum]];
    t.genre = names_[r.names[kGenre]];
    t.codec = names_[r.names[kCodec]];
    t.year = number(id, kYear);
    t.trackNumber = number(id, kTrackNumber);
    t.discNumber = number(id, kDiscNumber);
    t.durationMs = number(id, kDurationMs);
    t.sampleRate = number(id, kSampleRate);
    t.bitrate = number(id, kBitrate);
    t.channels = number(id, kChannels);
    if (auto it = gains_.find(id); it != gains_.end()) t.replayGain = it->second;
    return t;
}

} // namespace trovan
