// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/Fixtures.h"

#include <taglib/aifffile.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/flacfile.h>
#include <taglib/flacpicture.h>
#include <taglib/id3v2header.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4coverart.h>
#include <taglib/mp4file.h>
#include <taglib/mp4tag.h>
#include <taglib/mpegfile.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/tpropertymap.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavfile.h>
#include <taglib/xiphcomment.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;

namespace trovan::fixtures {

namespace {

std::string number(double v) {
    std::ostringstream s;
    s.imbue(std::locale::classic());
    s << v;
    return s.str();
}

std::vector<uint8_t> readAll(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Per format: extension, readable name, encoder options for 16 and 24 bit (none: the
// same for both).
struct FormatInfo {
    const char *extension, *name, *options, *deepOptions;
};
const FormatInfo kFormats[] = {
    {"flac", "flac", "-c:a flac -sample_fmt s16 -f flac",
     "-c:a flac -sample_fmt s32 -bits_per_raw_sample 24 -f flac"},
    {"mp3", "mp3", "-c:a libmp3lame -id3v2_version 0 -write_id3v1 0 -f mp3 -b:a 128k"},
    {"m4a", "aac", "-c:a aac -f ipod -b:a 128k"},
    {"m4a", "alac", "-c:a alac -sample_fmt s16p -f ipod", "-c:a alac -sample_fmt s32p -f ipod"},
    {"aac", "adts", "-c:a aac -f adts -b:a 128k"},
    {"wav", "wav", "-c:a pcm_s16le -f wav", "-c:a pcm_s24le -f wav"},
    {"aiff", "aiff", "-c:a pcm_s16be -f aiff", "-c:a pcm_s24be -f aiff"},
    {"aifc", "aifc", "-c:a pcm_s16le -f aiff"}, // little-endian PCM makes it AIFF-C ("sowt")
    {"caf", "caf", "-c:a pcm_s16le -f caf", "-c:a pcm_s24le -f caf"},
    {"ogg", "vorbis", "-c:a libvorbis -f ogg -b:a 96k"},
    {"opus", "opus", "-c:a libopus -f opus -b:a 64k"},
    {"oga", "oggflac", "-c:a flac -sample_fmt s16 -f ogg"}};

// The ffmpeg source and output options that make the tone's audio.
std::pair<std::string, std::string> recipe(const Tone& t) {
    const auto& f = kFormats[static_cast<int>(t.format)];
    auto rate = std::to_string(t.sampleRate), length = number(t.seconds);
    return {t.wave == Wave::noise
                ? "anoisesrc=sample_rate=" + rate + ":amplitude=0.8:seed=7:duration=" + length
                : "sine=frequency=" + number(t.frequency) + ":sample_rate=" + rate +
                      ":duration=" + length,
            "-ac " + std::to_string(t.channels) + " -map_metadata -1 -fflags +bitexact " +
                (t.bitDepth > 16 && f.deepOptions ? f.deepOptions : f.options)};
}

std::string mimeOf(const Cover& c) {
    return c.mimeType ? *c.mimeType : c.kind == ImageKind::png ? "image/png" : "image/jpeg";
}

TagLib::ByteVector bytesOf(const Cover& c) {
    auto data = image(c);
    return {reinterpret_cast<const char*>(data.data()), static_cast<unsigned>(data.size())};
}

TagLib::String utf8(const std::string& s) {
    return {s, TagLib::String::UTF8};
}

// Valid files only; a temporary lives to the end of the caller's expression.
template <class File> File& opened(File&& f, const fs::path& p) {
    if (!f.isValid()) throw std::runtime_error("TagLib cannot open " + p.string());
    return f;
}

TagLib::FLAC::Picture* flacPicture(const Cover& c) {
    auto* p = new TagLib::FLAC::Picture;
    p->setData(bytesOf(c));
    p->setMimeType(mimeOf(c));
    p->setType(static_cast<TagLib::FLAC::Picture::Type>(c.pictureType));
    p->setDescription(utf8(c.description));
    p->setWidth(c.width);
    p->setHeight(c.height);
    p->setColorDepth(24);
    return p;
}

// Sets the tone's properties on `tag` and returns it.
template <class Tag> Tag* tagged(Tag* tag, const Tone& t) {
    TagLib::PropertyMap map;
    for (const auto& [key, values] : t.tags) {
        TagLib::StringList list;
        for (const auto& v : values)
            list.append(utf8(v));
        map.insert(utf8(key), list);
    }
    tag->setProperties(map);
    return tag;
}

void tagId3(TagLib::ID3v2::Tag* tag, const Tone& t) {
    tagged(tag, t);
    for (const auto& c : t.covers) {
        auto* frame = new TagLib::ID3v2::AttachedPictureFrame;
        frame->setTextEncoding(TagLib::String::UTF8);
        frame->setPicture(bytesOf(c));
        frame->setMimeType(mimeOf(c));
        frame->setType(static_cast<TagLib::ID3v2::AttachedPictureFrame::Type>(c.pictureType));
        frame->setDescription(utf8(c.description));
        tag->addFrame(frame);
    }
}

// Opens a valid file, lets `change` edit it and throws unless it saves.
template <class File, class Change> void edit(const fs::path& p, Change change) {
    File f(p.c_str());
    if (!change(opened(f, p))) throw std::runtime_error("TagLib cannot save fixture " + p.string());
}

void writeTags(const fs::path& p, const Tone& t) {
    if (t.tags.empty() && t.covers.empty()) return;
    auto xiph = [&](auto& f) {
        auto* tag = tagged(f.tag(), t);
        for (const auto& c : t.covers)
            tag->addPicture(flacPicture(c));
        return f.save();
    };
    switch (t.format) {
    case Format::flac:
        return edit<TagLib::FLAC::File>(p, [&](auto& f) {
            tagged(f.xiphComment(true), t);
            for (const auto& c : t.covers)
                f.addPicture(flacPicture(c));
            return f.save();
        });
    case Format::mp3:
        return edit<TagLib::MPEG::File>(p, [&](auto& f) {
            tagId3(f.ID3v2Tag(true), t);
            return f.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripOthers, TagLib::ID3v2::v4,
                          TagLib::File::DoNotDuplicate);
        });
    case Format::aac:
    case Format::alac:
        return edit<TagLib::MP4::File>(p, [&](auto& f) {
            TagLib::MP4::CoverArtList list;
            for (const auto& c : t.covers)
                list.append({mimeOf(c) == "image/png"    ? TagLib::MP4::CoverArt::PNG
                             : mimeOf(c) == "image/jpeg" ? TagLib::MP4::CoverArt::JPEG
                                                         : TagLib::MP4::CoverArt::Unknown,
                             bytesOf(c)});
            tagged(f.tag(), t);
            if (!list.isEmpty()) f.tag()->setItem("covr", TagLib::MP4::Item(list));
            return f.save();
        });
    case Format::wav:
        return edit<TagLib::RIFF::WAV::File>(p, [&](auto& f) {
            tagId3(f.ID3v2Tag(), t);
            return f.save(TagLib::RIFF::WAV::File::ID3v2, TagLib::File::StripOthers,
                          TagLib::ID3v2::v4);
        });
    case Format::aiff:
    case Format::aifc:
        return edit<TagLib::RIFF::AIFF::File>(p, [&](auto& f) {
            tagId3(f.tag(), t);
            return f.save();
        });
    case Format::vorbis:
        return edit<TagLib::Ogg::Vorbis::File>(p, xiph);
    case Format::opus:
        return edit<TagLib::Ogg::Opus::File>(p, xiph);
    case Format::oggFlac:
        return edit<TagLib::Ogg::FLAC::File>(p, xiph);
    case Format::adts:
    case Format::caf:
        throw std::runtime_error("fixture format " + name(t.format) + " cannot carry tags");
    }
}

std::vector<uint8_t> bytes(const TagLib::ByteVector& v) {
    return {v.begin(), v.end()};
}

void addPictures(const TagLib::ID3v2::Tag* tag, std::vector<StoredPicture>& out) {
    for (auto* frame : tag ? tag->frameList("APIC") : TagLib::ID3v2::FrameList{})
        if (auto* apic = dynamic_cast<TagLib::ID3v2::AttachedPictureFrame*>(frame))
            out.push_back({apic->mimeType().to8Bit(true), static_cast<int>(apic->type()),
                           apic->description().to8Bit(true), bytes(apic->picture())});
}

void addPictures(const TagLib::List<TagLib::FLAC::Picture*>& list,
                 std::vector<StoredPicture>& out) {
    for (auto* p : list)
        out.push_back({p->mimeType().to8Bit(true), static_cast<int>(p->type()),
                       p->description().to8Bit(true), bytes(p->data())});
}

} // namespace

const std::vector<Format>& taggableFormats() {
    static const std::vector<Format> formats = {Format::flac, Format::mp3,    Format::aac,
                                                Format::alac, Format::wav,    Format::aiff,
                                                Format::aifc, Format::vorbis, Format::opus};
    return formats;
}

std::string extension(Format f) {
    return kFormats[static_cast<int>(f)].extension;
}

std::string name(Format f) {
    return kFormats[static_cast<int>(f)].name;
}

void ffmpeg(const std::string& source, const std::string& options, const fs::path& out) {
    std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-y",
                                     "-f",     "lavfi",    "-i", source};
    std::istringstream words(options);
    for (std::string w; words >> w;)
        argv.push_back(w);
    argv.push_back(out.string());
    auto r = runProcess(argv);
    if (r.status != 0)
        throw std::runtime_error("ffmpeg failed on " + out.string() + "\n" + r.errors);
}

bool available() {
    static const bool ok = onPath("ffmpeg") && onPath("ffprobe");
    return ok;
}

std::vector<uint8_t> image(const Cover& c) {
    // Each distinct picture is encoded once per process.
    static std::mutex mutex;
    static std::map<std::string, std::vector<uint8_t>> cache;
    const bool png = c.kind == ImageKind::png;
    auto size = std::to_string(c.width) + "x" + std::to_string(c.height);
    auto key = std::string(png ? "png:" : "jpeg:") + size + ":" + c.color;
    std::lock_guard lock(mutex);
    if (auto it = cache.find(key); it != cache.end()) return it->second;
    TempDir tmp("trovan-img");
    auto out = tmp / (png ? "cover.png" : "cover.jpg");
    ffmpeg("color=c=" + c.color + ":s=" + size,
           std::string("-frames:v 1 -f image2 -c:v ") + (png ? "png" : "mjpeg"), out);
    return cache[key] = readAll(out);
}

fs::path write(const fs::path& dir, const std::string& fileName, const Tone& t) {
    auto out = dir / fileName;
    auto [source, options] = recipe(t);
    ffmpeg(source, options, out);
    writeTags(out, t);
    return out;
}

fs::path writeBroken(const fs::path& dir, const std::string& fileName, Broken kind, Format basis) {
    auto out = dir / fileName;
    std::vector<uint8_t> bytes;
    if (kind == Broken::truncated) {
        // The headers and a little data: enough to be recognised, not to be complete.
        TempDir tmp("trovan-broken");
        bytes = readAll(write(tmp.path(), "whole." + extension(basis), Tone{.format = basis}));
        bytes.resize(bytes.size() / 5);
    } else if (kind == Broken::garbage) {
        uint32_t x = 2463534242u; // xorshift: the same bytes every run
        bytes.resize(8192);
        for (auto& b : bytes) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            b = static_cast<uint8_t>(x);
        }
    }
    std::ofstream f(out, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
    if (!f) throw std::runtime_error("cannot write " + out.string());
    return out;
}

const fs::path& sharedDir() {
    static TempDir dir("trovan-fixtures");
    return dir.path();
}

fs::path cached(const std::string& fileName, const Tone& t) {
    // Keyed by everything that shapes the file; bump the leading version when the
    // generator changes what it writes.
    auto [source, options] = recipe(t);
    std::ostringstream key;
    key.imbue(std::locale::classic());
    key << 2 << '|' << fileName << '|' << source << '|' << options;
    for (const auto& [k, vs] : t.tags) {
        key << "|T" << k.size() << ':' << k;
        for (const auto& v : vs)
            key << ',' << v.size() << ':' << v;
    }
    for (const auto& c : t.covers)
        key << "|C" << static_cast<int>(c.kind) << ',' << c.width << 'x' << c.height << ','
            << c.color << ',' << (c.mimeType ? "m" + *c.mimeType : "-") << ',' << c.pictureType
            << ',' << c.description;
    const char* base = std::getenv("TMPDIR");
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016zx", std::hash<std::string>{}(key.str()));
    auto dir = fs::path(base && *base ? base : "/tmp") /
               ("trovan-fixture-cache-" + std::to_string(getuid())) / hex;
    auto p = dir / fileName;
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    if (fs::exists(p)) return p;
    fs::create_directories(dir);
    // Generated aside and renamed into place, so a concurrent test process never sees a
    // half-written file and a failed encode leaves nothing behind.
    TempDir work("trovan-fixture");
    auto staged = dir / (".staging-" + std::to_string(getpid()) + "-" + fileName);
    fs::copy_file(write(work.path(), fileName, t), staged, fs::copy_options::overwrite_existing);
    fs::rename(staged, p);
    return p;
}

fs::path copyTo(const fs::path& file, const fs::path& dir, const std::string& newName) {
    auto out = dir / (newName.empty() ? file.filename() : fs::path(newName));
    fs::copy_file(file, out, fs::copy_options::overwrite_existing);
    return out;
}

std::vector<std::string> copyTree(const fs::path& from, const fs::path& to) {
    std::vector<std::string> paths;
    fs::create_directories(to);
    for (const auto& e : fs::recursive_directory_iterator(from)) {
        const auto target = to / fs::relative(e.path(), from);
        if (e.is_directory()) {
            fs::create_directories(target);
        } else if (e.is_regular_file()) {
            fs::copy_file(e.path(), target);
            fs::permissions(target, fs::perms::owner_read | fs::perms::owner_write,
                            fs::perm_options::add);
            paths.push_back(target.string());
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::vector<StoredPicture> storedPictures(const fs::path& p) {
    std::vector<StoredPicture> out;
    auto ext = p.extension().string();
    if (ext == ".mp3") {
        addPictures(opened(TagLib::MPEG::File(p.c_str()), p).ID3v2Tag(), out);
    } else if (ext == ".flac") {
        TagLib::FLAC::File f(p.c_str());
        addPictures(opened(f, p).pictureList(), out);
        if (f.hasXiphComment()) addPictures(f.xiphComment()->pictureList(), out);
    } else if (ext == ".m4a") {
        TagLib::MP4::File f(p.c_str());
        if (opened(f, p).tag()->contains("covr"))
            for (const auto& art : f.tag()->item("covr").toCoverArtList())
                out.push_back({art.format() == TagLib::MP4::CoverArt::PNG    ? "image/png"
                               : art.format() == TagLib::MP4::CoverArt::JPEG ? "image/jpeg"
                                                                             : "",
                               -1, "", bytes(art.data())});
    } else if (ext == ".wav") {
        addPictures(opened(TagLib::RIFF::WAV::File(p.c_str()), p).ID3v2Tag(), out);
    } else if (ext == ".aiff" || ext == ".aifc") {
        addPictures(opened(TagLib::RIFF::AIFF::File(p.c_str()), p).tag(), out);
    } else if (ext == ".ogg") {
        addPictures(opened(TagLib::Ogg::Vorbis::File(p.c_str()), p).tag()->pictureList(), out);
    } else if (ext == ".opus") {
        addPictures(opened(TagLib::Ogg::Opus::File(p.c_str()), p).tag()->pictureList(), out);
    } else {
        throw std::runtime_error("no picture support for " + p.string());
    }
    return out;
}

MpegTags mpegTags(const fs::path& p) {
    TagLib::MPEG::File f(p.c_str());
    opened(f, p);
    return {f.hasID3v1Tag(), f.hasAPETag(),
            f.hasID3v2Tag() ? static_cast<int>(f.ID3v2Tag()->header()->majorVersion()) : 0};
}

std::optional<Probe> probe(const fs::path& file) {
    auto r = runProcess({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                         "stream=codec_name,sample_rate,channels:format=duration", "-of",
                         "default=nw=1:nk=1", file.string()});
    // One value a line, in ffprobe's own order; "N/A" reads as 0.
    std::istringstream in(r.output);
    std::string codec, rate, channels, seconds;
    if (r.status != 0 || !(in >> codec >> rate >> channels >> seconds)) return std::nullopt;
    return Probe{codec, std::atof(seconds.c_str()), std::atoi(rate.c_str()),
                 std::atoi(channels.c_str())};
}

bool decodes(const fs::path& file) {
    auto r = runProcess({"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", file.string(),
                         "-map", "0:a:0", "-f", "null", "-"});
    return r.status == 0 && r.errors.empty();
}

} // namespace trovan::fixtures
