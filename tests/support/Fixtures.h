// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Real audio files for tests and benchmarks, generated at run time: a tone encoded by
// the ffmpeg tool, then tags and covers written with TagLib's per-format APIs. Every
// function throws std::runtime_error when a tool fails; tests that need ffmpeg start
// with `if (!fixtures::available()) GTEST_SKIP();`.

#include "support/Process.h"
#include "support/TempDir.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace trovan::fixtures {

// flac/alac/wav/aiff/caf take Tone::bitDepth 16 or 24; adts (.aac) and caf cannot carry
// tags; oggFlac (.oga) must get none either (TagLib 1.13 cannot reopen what it saves).
enum class Format { flac, mp3, aac, alac, adts, wav, aiff, aifc, caf, vorbis, opus, oggFlac };

// Every format whose tags and pictures TagLib writes and reads back.
const std::vector<Format>& taggableFormats();
std::string extension(Format f); // without the dot; aac and alac are both "m4a"
std::string name(Format f);      // for test output

enum class ImageKind { jpeg, png };

// An embedded picture of one colour.
struct Cover {
    ImageKind kind = ImageKind::jpeg;
    int width = 16;
    int height = 16;
    std::string color = "red";           // any ffmpeg colour name
    std::optional<std::string> mimeType; // default: from kind; "" stores no MIME type
    int pictureType = 3;                 // 3 = front cover
    std::string description;
};

enum class Wave { sine, noise }; // noise defeats lossless compression

struct Tone {
    Format format = Format::flac;
    Wave wave = Wave::sine;
    double frequency = 440;
    double seconds = 1.0;
    int sampleRate = 44100;
    int channels = 2;
    int bitDepth = 16;
    // TagLib property keys ("TITLE", "ARTIST"...); several values make a multi-valued tag.
    std::map<std::string, std::vector<std::string>> tags;
    std::vector<Cover> covers;
};

// True when the ffmpeg and ffprobe tools are installed.
bool available();
// Runs the ffmpeg tool on a generated (lavfi) `source` with space-separated `options`.
void ffmpeg(const std::string& source, const std::string& options,
            const std::filesystem::path& out);
// Writes `tone` as dir/fileName (used verbatim; the container comes from the format).
std::filesystem::path write(const std::filesystem::path& dir, const std::string& fileName,
                            const Tone& tone);
// Encoded bytes of a generated picture.
std::vector<uint8_t> image(const Cover& cover);

enum class Broken { zeroBytes, truncated, garbage };
// A deliberately broken file; `truncated` keeps the first fifth of a `basis` file.
std::filesystem::path writeBroken(const std::filesystem::path& dir, const std::string& fileName,
                                  Broken kind, Format basis = Format::flac);

// A folder shared by every test of the process, removed at exit.
const std::filesystem::path& sharedDir();
// A read-only copy of `tone` as fileName in a cache under $TMPDIR shared by every test
// process, generated on first use. Copy it with copyTo before modifying it.
std::filesystem::path cached(const std::string& fileName, const Tone& tone);
std::filesystem::path copyTo(const std::filesystem::path& file, const std::filesystem::path& dir,
                             const std::string& newName = {});
// A writable copy of a folder that may be read-only (the shared corpus is), whoever runs
// the tests; returns the copied files, sorted.
std::vector<std::string> copyTree(const std::filesystem::path& from,
                                  const std::filesystem::path& to);

// An embedded picture as stored, read back with TagLib's per-format APIs.
struct StoredPicture {
    std::string mimeType; // possibly empty
    int pictureType = -1; // -1 for MP4, which has no picture types
    std::string description;
    std::vector<uint8_t> data;
};
std::vector<StoredPicture> storedPictures(const std::filesystem::path& file);
// The tags present in an MPEG file.
struct MpegTags {
    bool id3v1 = false, ape = false;
    int id3v2Version = 0; // 0 when there is no ID3v2 tag
};
MpegTags mpegTags(const std::filesystem::path& file);

// What ffprobe reports about the first audio stream; none when it finds none.
struct Probe {
    std::string codec;
    double seconds = 0;
    int sampleRate = 0;
    int channels = 0;
};
std::optional<Probe> probe(const std::filesystem::path& file);
// True when ffmpeg decodes the whole audio stream without an error.
bool decodes(const std::filesystem::path& file);

} // namespace trovan::fixtures
