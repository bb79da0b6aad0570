// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/Track.h"

#include "config/FileStamp.h"
#include "media/AudioFileProbe.h"
#include "media/TagLibFile.h"
#include "text/Text.h"

#include <charconv>
#include <cmath>
#include <functional>
#include <sys/stat.h>

namespace trovan {

namespace {

std::string_view lastComponent(std::string_view path) {
    auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// Text after the last dot of the last component; empty if none.
std::string_view extensionOf(std::string_view path) {
    auto name = lastComponent(path);
    auto dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view{} : name.substr(dot + 1);
}

std::string asciiLower(std::string_view s) {
    std::string out(s);
    for (auto& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

std::string asciiUpper(std::string_view s) {
    std::string out(s);
    for (auto& c : out)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return out;
}

// Frames over rate, truncated; 0 when the rate is unusable.
int64_t probeDurationMs(const AudioFileProbe& probe) {
    if (!(probe.sampleRate > 0) || !std::isfinite(probe.sampleRate)) return 0;
    double ms = static_cast<double>(probe.frames) / probe.sampleRate * 1000.0;
    if (!std::isfinite(ms) || ms < 0 || ms >= 9.2e18) return 0;
    return static_cast<int64_t>(ms);
}

} // namespace

std::string Track::displayTitle() const {
    return std::string(displayTitleOf(path, title));
}

std::string_view Track::displayTitleOf(std::string_view path, std::string_view title) {
    if (!title.empty()) return title;
    auto name = lastComponent(path);
    auto dot = name.rfind('.');
    if (dot != std::string_view::npos && dot > 0) name = name.substr(0, dot);
    return name;
}

std::string Track::displayArtist() const {
    if (!artist.empty()) return artist;
    if (!albumArtist.empty()) return albumArtist;
    return std::string(kUnknownArtist);
}

std::string Track::groupArtist() const {
    if (!albumArtist.empty()) return albumArtist;
    if (!artist.empty()) return artist;
    return std::string(kUnknownArtist);
}

std::optional<Track> Track::read(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    return read(path, FileStamp{FileStamp::seconds(st.st_mtim), static_cast<int64_t>(st.st_size)});
}

// TagLib and FFmpeg parse whatever the file holds; anything they throw (memory for an
// absurd frame size) makes it a file that cannot be read, like any other.
std::optional<Track> Track::read(const std::string& path, const FileStamp& stamp) try {
    Track t;
    t.path = path;
    t.mtime = stamp.mtime;
    t.size = stamp.size;
    auto ext = asciiLower(extensionOf(path));

    auto file = TagLibFile::openForReading(path);
    std::optional<TagLibFile::AudioProperties> props;
    if (file) {
        props = file->audioProperties();
        // TagLib accepts some empty or garbage files (WAV, AIFF, MPEG) as valid and reports
        // no audio at all; only FFmpeg can tell whether there is anything to play then.
        if (!props || props->sampleRate <= 0) {
            if (!AudioFileProbe::read(path)) return std::nullopt;
        }
    }
    if (file) {
        auto text = [&](const char* key) { return file->value(key).value_or(std::string{}); };
        t.title = text("TITLE");
        t.artist = text("ARTIST");
        t.albumArtist = text("ALBUMARTIST");
        t.album = text("ALBUM");
        t.genre = text("GENRE");
        t.year = leadingInt(file->value("DATE"));
        t.trackNumber = leadingInt(file->value("TRACKNUMBER"));
        t.discNumber = leadingInt(file->value("DISCNUMBER"));
        t.replayGain = ReplayGain::fromTags([&](const char* key) { return file->value(key); });
        if (props) {
            t.durationMs = props->lengthMs;
            t.bitrate = props->bitrate;
            t.sampleRate = props->sampleRate;
            t.channels = props->channels;
        }
        t.codec = codecLabel(ext, props ? props->codec : std::string());
        // TagLib cannot measure some streams (FLAC in Ogg); FFmpeg can.
        if (!props || props->lengthMs <= 0 || props->sampleRate <= 0) {
            if (auto probe = AudioFileProbe::read(path)) {
                t.durationMs = probeDurationMs(*probe);
                if (t.sampleRate <= 0) t.sampleRate = static_cast<int64_t>(probe->sampleRate);
                if (t.channels <= 0) t.channels = probe->channels;
            }
        }
        return t;
    }

    auto probe = AudioFileProbe::read(path);
    if (!probe) return std::nullopt;
    t.durationMs = probeDurationMs(*probe);
    if (probe->sampleRate > 0 && std::isfinite(probe->sampleRate))
        t.sampleRate = static_cast<int64_t>(probe->sampleRate);
    t.channels = probe->channels;
    t.codec = asciiUpper(ext);
    return t;
} catch (const std::exception&) {
    return std::nullopt;
}

int64_t Track::leadingInt(const std::optional<std::string>& value) {
    if (!value) return 0;
    std::string_view s = *value;
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);

    std::size_t prefix = 0;
    text::Graphemes clusters(s);
    std::string_view cluster;
    while (clusters.next(cluster) && text::isNumeric(cluster))
        prefix += cluster.size();
    if (prefix == 0) return 0;

    // Numeric characters other than ASCII digits (fractions, other scripts) do not parse.
    int64_t result = 0;
    auto digits = s.substr(0, prefix);
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), result, 10);
    if (ec != std::errc{} || end != digits.data() + digits.size()) return 0;
    return result;
}

std::string Track::codecLabel(std::string_view ext, std::string_view codec) {
    if (!codec.empty()) return std::string(codec);
    if (ext == "m4a" || ext == "m4b" || ext == "mp4") return "AAC";
    if (ext == "aif" || ext == "aiff" || ext == "aifc") return "AIFF";
    return asciiUpper(ext);
}

const std::unordered_set<std::string_view>& Track::audioExtensions() {
    static const std::unordered_set<std::string_view> set = {"flac", "mp3", "m4a", "m4b",  "mp4",
                                                             "aac",  "wav", "aif", "aiff", "aifc",
                                                             "caf",  "ogg", "oga", "opus"};
    return set;
}

bool Track::isAudioPath(std::string_view path) {
    auto ext = extensionOf(path);
    if (ext.empty() || ext.size() > 4) return false;
    return audioExtensions().contains(asciiLower(ext));
}

std::size_t TrackHash::operator()(const Track& t) const noexcept {
    std::size_t h = 0;
    auto mix = [&h](std::size_t v) { h ^= v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2); };
    std::hash<std::string> hs;
    std::hash<int64_t> hi;
    mix(hs(t.path));
    mix(std::hash<double>{}(t.mtime + 0.0)); // folds -0.0 into 0.0
    mix(hi(t.size));
    for (const auto* s : {&t.title, &t.artist, &t.albumArtist, &t.album, &t.genre})
        mix(hs(*s));
    for (auto v : {t.year, t.trackNumber, t.discNumber, t.durationMs})
        mix(hi(v));
    mix(hs(t.codec));
    for (auto v : {t.sampleRate, t.bitrate, t.channels})
        mix(hi(v));
    return h;
}

} // namespace trovan
