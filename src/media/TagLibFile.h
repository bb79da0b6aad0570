// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One audio file opened with TagLib: its property map (upper-case keys such as TITLE,
// ARTIST, LYRICS, each with a list of values), its audio properties and its embedded
// cover picture. Used by one thread at a time; unsaved changes are dropped on release.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace trovan {

// An encoded image (JPEG, PNG...) with its MIME type.
struct Picture {
    std::vector<uint8_t> data;
    std::string mimeType;

    // Larger images are not covers, and tag formats store them badly (a FLAC block holds
    // 16 MiB): they are refused before anything is written.
    static constexpr std::size_t maxBytes = std::size_t(32) << 20;
    // The type the bytes show: "image/jpeg", "image/png", "image/gif", "image/bmp" or
    // "image/webp"; empty for anything else.
    static std::string mimeTypeOf(const std::vector<uint8_t>& data);

    bool operator==(const Picture&) const = default;
};

class TagLibFile {
public:
    struct AudioProperties {
        int lengthSeconds = 0;
        int lengthMs = 0;
        int bitrate = 0;    // kb/s
        int sampleRate = 0; // Hz
        int channels = 0;
        int bitsPerSample = 0; // 0 when the format has none (lossy) or TagLib does not know
        std::string codec;     // MPEG-4 files only: "AAC" or "ALAC"; empty otherwise

        bool operator==(const AudioProperties&) const = default;
    };

    // None when TagLib cannot open the file or finds it invalid (unknown format,
    // unreadable, corrupt).
    static std::unique_ptr<TagLibFile> open(const std::string& path);
    // The same, for reading only and faster: the file is read through a small block
    // cache instead of stdio (TagLib reads tags in many small pieces and seeks between
    // them). save() on such a file fails and writes nothing.
    static std::unique_ptr<TagLibFile> openForReading(const std::string& path);
    ~TagLibFile();
    TagLibFile(const TagLibFile&) = delete;
    TagLibFile& operator=(const TagLibFile&) = delete;

    // First value of a property, or none when it is missing or has no values.
    std::optional<std::string> value(const std::string& key) const;
    // Every property, keys in TagLib's order.
    std::map<std::string, std::vector<std::string>> properties() const;

    // The edits below touch only what holds the key (ID3v2 frames, MP4 items, Xiph
    // fields): every other frame keeps its description, language and text encoding, and
    // frames that hold the key keep theirs as far as the new values allow.
    // Deletes a property.
    void remove(const std::string& key);
    // Adds values after the existing ones of a property.
    void append(const std::string& key, const std::vector<std::string>& values);
    // Replaces a property by these values. Empty values are left out, and a list with
    // none deletes the property.
    void set(const std::string& key, const std::vector<std::string>& values);

    // Writes the changes to disk. MPEG files get an ID3v2.4 tag and never a new ID3v1 tag.
    // False, writing nothing, when TagLib would drop frames it read but cannot write.
    bool save();

    // None when the file has no audio properties.
    std::optional<AudioProperties> audioProperties() const;

    // The first embedded picture that has data; a picture stored without a MIME type
    // reads as "image/jpeg". None for formats without pictures.
    std::optional<Picture> picture() const;
    // With a picture: replaces every embedded picture by this one, as front cover with
    // an empty description. Without: removes every embedded picture. False when the
    // format cannot hold pictures (nothing changes then). Saving is a separate step.
    bool setPicture(const std::optional<Picture>& picture);

    const std::string& path() const { return path_; }

private:
    struct Impl;
    TagLibFile(std::string path, std::unique_ptr<Impl> impl);
    // The file TagLib opened, or none when it could not or found it invalid.
    static std::unique_ptr<TagLibFile> adopt(const std::string& path, std::unique_ptr<Impl> impl);
    std::string path_;
    std::unique_ptr<Impl> impl_;
};

} // namespace trovan
