#pragma once
// Real audio files for tests and benchmarks, generated at run time.
//
// Audio is encoded by the ffmpeg command-line tool from a generated tone (or white
// noise); tags and cover pictures are then written with TagLib's per-format APIs, so
// the files carry exactly what the spec below asks for. Nothing is ever committed.
//
//   fixtures::TempDir dir;
//   fixtures::Tone tone;
//   tone.format = fixtures::Format::mp3;
//   tone.tags = {{"TITLE", {"Canción"}}, {"ARTIST", {"Uno", "Dos"}}};
//   tone.covers = {fixtures::Cover{}};
//   auto path = fixtures::write(dir.path(), "song.mp3", tone);
//
// Every function throws std::runtime_error when a tool fails. Tests that need ffmpeg
// should start with `if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";`.

#include "support/Process.h"
#include "support/TempDir.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace trovan::fixtures {

enum class Format {
    flac,    // .flac, 16 or 24 bit (Tone::bitDepth)
    mp3,     // .mp3, LAME CBR (Tone::bitrateKbps, default 128)
    aac,     // .m4a, AAC-LC (default 128 kb/s)
    alac,    // .m4a, Apple Lossless, 16 or 24 bit
    adts,    // .aac, raw AAC (ADTS); TagLib does not open these
    wav,     // .wav, PCM little-endian 16 or 24 bit
    aiff,    // .aiff, PCM big-endian 16 or 24 bit
    aifc,    // .aifc, AIFF-C with little-endian PCM ("sowt")
    caf,     // .caf, PCM; TagLib does not open these
    vorbis,  // .ogg, Ogg Vorbis
    opus,    // .opus, Ogg Opus (always 48 kHz inside)
    oggFlac, // .oga, FLAC in Ogg; give it no tags or covers (see taggableFormats)
};

// All formats, for tests that loop over every one.
const std::vector<Format>& allFormats();
// Formats whose tags and pictures TagLib writes and reads back: everything but adts and
// caf (TagLib cannot open them) and oggFlac (TagLib 1.13 cannot reopen the FLAC-in-Ogg
// files it has saved, although FFmpeg still plays them).
const std::vector<Format>& taggableFormats();
// Default file extension, without dot.
std::string extension(Format f);
// Short readable name for test output ("flac", "alac"...).
std::string name(Format f);

enum class ImageKind { jpeg, png };

// An embedded picture. The bytes are a generated image of one colour.
struct Cover {
    ImageKind kind = ImageKind::jpeg;
    int width = 16;
    int height = 16;
    std::string color = "red";           // any ffmpeg colour name or 0xRRGGBB
    std::optional<std::string> mimeType; // default: from kind; "" stores no MIME type
    int pictureType = 3;                 // ID3v2/FLAC picture type; 3 = front cover
    std::string description;
};

enum class Wave { sine, noise };

struct Tone {
    Format format = Format::flac;
    Wave wave = Wave::sine; // noise defeats lossless compression (high ALAC bitrates)
    double frequency = 440; // Hz, for sine
    double seconds = 1.0;
    int sampleRate = 44100;
    int channels = 2;
    int bitDepth = 16;   // flac, alac, wav, aiff, caf: 16 or 24
    int bitrateKbps = 0; // lossy formats; 0 = default
    // Property keys as TagLib names them ("TITLE", "ARTIST", "ALBUMARTIST", "DATE",
    // "TRACKNUMBER", ...); several values make a multi-valued tag.
    std::map<std::string, std::vector<std::string>> tags;
    std::vector<Cover> covers;
};

// True when the ffmpeg and ffprobe tools are installed.
bool available();

// Writes `tone` as dir/fileName (fileName is used verbatim, so upper-case or unusual
// extensions are fine; the container comes from tone.format) and returns the path.
std::filesystem::path write(const std::filesystem::path& dir, const std::string& fileName,
                            const Tone& tone);

// Encoded bytes of a generated picture.
std::vector<uint8_t> image(const Cover& cover);

enum class Broken {
    zeroBytes, // an empty file
    truncated, // the first part of a real file of `basis` format (header intact, data cut)
    garbage,   // pseudo-random bytes
};

// Writes a deliberately broken file named fileName (its extension decides what it
// pretends to be) and returns the path.
std::filesystem::path writeBroken(const std::filesystem::path& dir, const std::string& fileName,
                                  Broken kind, Format basis = Format::flac);

// A folder shared by every test of the process, removed at exit.
const std::filesystem::path& sharedDir();
// Returns a read-only fixture: `tone` written as fileName in a cache folder under
// $TMPDIR that every test process shares (ctest runs each test in its own process),
// generated the first time that exact tone and name are asked for. Never modify the
// returned file: copy it first with copyTo.
std::filesystem::path cached(const std::string& fileName, const Tone& tone);
// Copies a file into dir under newName (default: its own name) and returns the new path.
std::filesystem::path copyTo(const std::filesystem::path& file, const std::filesystem::path& dir,
                             const std::string& newName = {});

// A picture as stored in a file, read back with TagLib's per-format APIs (for checking
// what a writer left behind).
struct StoredPicture {
    std::string mimeType; // as stored, possibly empty
    int pictureType = -1; // -1 where the format has no picture types (MP4)
    std::string description;
    std::vector<uint8_t> data;
};
// Every embedded picture of a file, in stored order. Throws when TagLib cannot open it.
std::vector<StoredPicture> storedPictures(const std::filesystem::path& file);
// The tag types present in an MPEG file: "ID3v1", "ID3v2", "APE", and the ID3v2 version.
struct MpegTags {
    bool id3v1 = false;
    bool id3v2 = false;
    bool ape = false;
    int id3v2Version = 0;
};
MpegTags mpegTags(const std::filesystem::path& file);

// What ffprobe reports about the first audio stream.
struct Probe {
    std::string codec; // ffmpeg codec name: flac, mp3, aac, alac, pcm_s16le, vorbis, opus...
    double seconds = 0;
    int sampleRate = 0;
    int channels = 0;
    int bitsPerRawSample = 0;
};
// None when ffprobe cannot read the file or finds no audio stream.
std::optional<Probe> probe(const std::filesystem::path& file);

// True when ffmpeg decodes the whole audio stream without an error.
bool decodes(const std::filesystem::path& file);

} // namespace trovan::fixtures
