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

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;

namespace trovan::fixtures {

namespace {

void check(const ProcessResult& r, const std::vector<std::string>& argv) {
    if (r.status == 0) return;
    std::string cmd;
    for (const auto& a : argv)
        cmd += a + " ";
    throw std::runtime_error("fixture command failed (" + std::to_string(r.status) + "): " + cmd +
                             "\n" + r.errors);
}

void runChecked(const std::vector<std::string>& argv) {
    check(runProcess(argv), argv);
}

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

// Encoder options for a format: codec, sample format and muxer.
std::vector<std::string> encoderArgs(const Tone& t) {
    bool deep = t.bitDepth > 16;
    auto kbps = [&](int def) {
        return std::to_string(t.bitrateKbps > 0 ? t.bitrateKbps : def) + "k";
    };
    switch (t.format) {
    case Format::flac:
        return deep ? std::vector<std::string>{"-c:a",
                                               "flac",
                                               "-sample_fmt",
                                               "s32",
                                               "-bits_per_raw_sample",
                                               "24",
                                               "-f",
                                               "flac"}
                    : std::vector<std::string>{"-c:a", "flac", "-sample_fmt", "s16", "-f", "flac"};
    case Format::mp3:
        return {"-c:a", "libmp3lame",   "-b:a", kbps(128), "-id3v2_version",
                "0",    "-write_id3v1", "0",    "-f",      "mp3"};
    case Format::aac:
        return {"-c:a", "aac", "-b:a", kbps(128), "-f", "ipod"};
    case Format::alac:
        return {"-c:a", "alac", "-sample_fmt", deep ? "s32p" : "s16p", "-f", "ipod"};
    case Format::adts:
        return {"-c:a", "aac", "-b:a", kbps(128), "-f", "adts"};
    case Format::wav:
        return {"-c:a", deep ? "pcm_s24le" : "pcm_s16le", "-f", "wav"};
    case Format::aiff:
        return {"-c:a", deep ? "pcm_s24be" : "pcm_s16be", "-f", "aiff"};
    case Format::aifc:
        return {"-c:a", "pcm_s16le", "-f", "aiff"};
    case Format::caf:
        return {"-c:a", deep ? "pcm_s24le" : "pcm_s16le", "-f", "caf"};
    case Format::vorbis:
        return {"-c:a", "libvorbis", "-b:a", kbps(96), "-f", "ogg"};
    case Format::opus:
        return {"-c:a", "libopus", "-b:a", kbps(64), "-f", "opus"};
    case Format::oggFlac:
        return {"-c:a", "flac", "-sample_fmt", "s16", "-f", "ogg"};
    }
    return {};
}

TagLib::PropertyMap propertyMap(const Tone& t) {
    TagLib::PropertyMap map;
    for (const auto& [key, values] : t.tags) {
        TagLib::StringList list;
        for (const auto& v : values)
            list.append(TagLib::String(v, TagLib::String::UTF8));
        map.insert(TagLib::String(key, TagLib::String::UTF8), list);
    }
    return map;
}

std::string mimeOf(const Cover& c) {
    if (c.mimeType) return *c.mimeType;
    return c.kind == ImageKind::png ? "image/png" : "image/jpeg";
}

TagLib::ByteVector bytesOf(const Cover& c) {
    auto data = image(c);
    return TagLib::ByteVector(reinterpret_cast<const char*>(data.data()),
                              static_cast<unsigned>(data.size()));
}

void addId3Pictures(TagLib::ID3v2::Tag* tag, const Tone& t) {
    for (const auto& c : t.covers) {
        auto* frame = new TagLib::ID3v2::AttachedPictureFrame;
        frame->setTextEncoding(TagLib::String::UTF8);
        frame->setPicture(bytesOf(c));
        frame->setMimeType(mimeOf(c));
        frame->setType(static_cast<TagLib::ID3v2::AttachedPictureFrame::Type>(c.pictureType));
        frame->setDescription(TagLib::String(c.description, TagLib::String::UTF8));
        tag->addFrame(frame);
    }
}

TagLib::FLAC::Picture* flacPicture(const Cover& c) {
    auto* p = new TagLib::FLAC::Picture;
    p->setData(bytesOf(c));
    p->setMimeType(mimeOf(c));
    p->setType(static_cast<TagLib::FLAC::Picture::Type>(c.pictureType));
    p->setDescription(TagLib::String(c.description, TagLib::String::UTF8));
    p->setWidth(c.width);
    p->setHeight(c.height);
    p->setColorDepth(24);
    return p;
}

void addXiphPictures(TagLib::Ogg::XiphComment* tag, const Tone& t) {
    for (const auto& c : t.covers)
        tag->addPicture(flacPicture(c));
}

template <class File> void requireValid(const File& f, const fs::path& p) {
    if (!f.isValid()) throw std::runtime_error("TagLib cannot open fixture " + p.string());
}

template <class File> void saveXiph(const fs::path& p, const Tone& t) {
    File f(p.c_str());
    requireValid(f, p);
    f.tag()->setProperties(propertyMap(t));
    addXiphPictures(f.tag(), t);
    if (!f.save()) throw std::runtime_error("TagLib cannot save fixture " + p.string());
}

void writeTags(const fs::path& p, const Tone& t) {
    if (t.tags.empty() && t.covers.empty()) return;
    auto fail = [&] { throw std::runtime_error("TagLib cannot save fixture " + p.string()); };
    switch (t.format) {
    case Format::flac: {
        TagLib::FLAC::File f(p.c_str());
        requireValid(f, p);
        f.xiphComment(true)->setProperties(propertyMap(t));
        for (const auto& c : t.covers)
            f.addPicture(flacPicture(c));
        if (!f.save()) fail();
        break;
    }
    case Format::mp3: {
        TagLib::MPEG::File f(p.c_str());
        requireValid(f, p);
        auto* tag = f.ID3v2Tag(true);
        tag->setProperties(propertyMap(t));
        addId3Pictures(tag, t);
        if (!f.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripOthers, TagLib::ID3v2::v4,
                    TagLib::File::DoNotDuplicate))
            fail();
        break;
    }
    case Format::aac:
    case Format::alac: {
        TagLib::MP4::File f(p.c_str());
        requireValid(f, p);
        f.tag()->setProperties(propertyMap(t));
        if (!t.covers.empty()) {
            TagLib::MP4::CoverArtList list;
            for (const auto& c : t.covers) {
                auto mime = mimeOf(c);
                auto format = mime == "image/png"    ? TagLib::MP4::CoverArt::PNG
                              : mime == "image/jpeg" ? TagLib::MP4::CoverArt::JPEG
                                                     : TagLib::MP4::CoverArt::Unknown;
                list.append(TagLib::MP4::CoverArt(format, bytesOf(c)));
            }
            f.tag()->setItem("covr", TagLib::MP4::Item(list));
        }
        if (!f.save()) fail();
        break;
    }
    case Format::wav: {
        TagLib::RIFF::WAV::File f(p.c_str());
        requireValid(f, p);
        f.ID3v2Tag()->setProperties(propertyMap(t));
        addId3Pictures(f.ID3v2Tag(), t);
        if (!f.save(TagLib::RIFF::WAV::File::ID3v2, TagLib::File::StripOthers, TagLib::ID3v2::v4))
            fail();
        break;
    }
    case Format::aiff:
    case Format::aifc: {
        TagLib::RIFF::AIFF::File f(p.c_str());
        requireValid(f, p);
        f.tag()->setProperties(propertyMap(t));
        addId3Pictures(f.tag(), t);
        if (!f.save()) fail();
        break;
    }
    case Format::vorbis:
        saveXiph<TagLib::Ogg::Vorbis::File>(p, t);
        break;
    case Format::opus:
        saveXiph<TagLib::Ogg::Opus::File>(p, t);
        break;
    case Format::oggFlac:
        saveXiph<TagLib::Ogg::FLAC::File>(p, t);
        break;
    case Format::adts:
    case Format::caf:
        throw std::runtime_error("fixture format " + name(t.format) + " cannot carry tags");
    }
}

std::mutex sharedMutex;

} // namespace

const std::vector<Format>& allFormats() {
    static const std::vector<Format> all = {
        Format::flac, Format::mp3,  Format::aac, Format::alac,   Format::adts, Format::wav,
        Format::aiff, Format::aifc, Format::caf, Format::vorbis, Format::opus, Format::oggFlac};
    return all;
}

const std::vector<Format>& taggableFormats() {
    static const std::vector<Format> formats = [] {
        std::vector<Format> out;
        for (auto f : allFormats())
            if (f != Format::adts && f != Format::caf && f != Format::oggFlac) out.push_back(f);
        return out;
    }();
    return formats;
}

std::string extension(Format f) {
    switch (f) {
    case Format::flac:
        return "flac";
    case Format::mp3:
        return "mp3";
    case Format::aac:
    case Format::alac:
        return "m4a";
    case Format::adts:
        return "aac";
    case Format::wav:
        return "wav";
    case Format::aiff:
        return "aiff";
    case Format::aifc:
        return "aifc";
    case Format::caf:
        return "caf";
    case Format::vorbis:
        return "ogg";
    case Format::opus:
        return "opus";
    case Format::oggFlac:
        return "oga";
    }
    return "bin";
}

std::string name(Format f) {
    switch (f) {
    case Format::aac:
        return "aac";
    case Format::alac:
        return "alac";
    case Format::adts:
        return "adts";
    case Format::vorbis:
        return "vorbis";
    case Format::oggFlac:
        return "oggflac";
    default:
        return extension(f);
    }
}

bool available() {
    static const bool ok = onPath("ffmpeg") && onPath("ffprobe");
    return ok;
}

std::vector<uint8_t> image(const Cover& c) {
    // Each distinct picture is encoded once per process.
    static std::mutex mutex;
    static std::map<std::string, std::vector<uint8_t>> cache;
    auto key = std::to_string(static_cast<int>(c.kind)) + ":" + std::to_string(c.width) + "x" +
               std::to_string(c.height) + ":" + c.color;
    std::lock_guard lock(mutex);
    if (auto it = cache.find(key); it != cache.end()) return it->second;
    TempDir tmp("trovan-img");
    auto out = tmp / (c.kind == ImageKind::png ? "cover.png" : "cover.jpg");
    std::vector<std::string> argv = {"ffmpeg",
                                     "-nostdin",
                                     "-v",
                                     "error",
                                     "-y",
                                     "-f",
                                     "lavfi",
                                     "-i",
                                     "color=c=" + c.color + ":s=" + std::to_string(c.width) + "x" +
                                         std::to_string(c.height),
                                     "-frames:v",
                                     "1",
                                     "-c:v",
                                     c.kind == ImageKind::png ? "png" : "mjpeg",
                                     "-f",
                                     "image2",
                                     out.string()};
    runChecked(argv);
    return cache[key] = readAll(out);
}

fs::path write(const fs::path& dir, const std::string& fileName, const Tone& t) {
    auto out = dir / fileName;
    std::string source;
    if (t.wave == Wave::noise)
        source = "anoisesrc=sample_rate=" + std::to_string(t.sampleRate) +
                 ":amplitude=0.8:seed=7:duration=" + number(t.seconds);
    else
        source = "sine=frequency=" + number(t.frequency) +
                 ":sample_rate=" + std::to_string(t.sampleRate) + ":duration=" + number(t.seconds);
    std::vector<std::string> argv = {"ffmpeg",
                                     "-nostdin",
                                     "-v",
                                     "error",
                                     "-y",
                                     "-f",
                                     "lavfi",
                                     "-i",
                                     source,
                                     "-ac",
                                     std::to_string(t.channels),
                                     "-map_metadata",
                                     "-1",
                                     "-fflags",
                                     "+bitexact"};
    for (auto& a : encoderArgs(t))
        argv.push_back(a);
    argv.push_back(out.string());
    runChecked(argv);
    writeTags(out, t);
    return out;
}

fs::path writeBroken(const fs::path& dir, const std::string& fileName, Broken kind, Format basis) {
    auto out = dir / fileName;
    std::vector<uint8_t> bytes;
    switch (kind) {
    case Broken::zeroBytes:
        break;
    case Broken::truncated: {
        TempDir tmp("trovan-broken");
        Tone t;
        t.format = basis;
        t.seconds = 1.0;
        auto whole = readAll(write(tmp.path(), "whole." + extension(basis), t));
        // Keep the headers and a little data: enough to be recognised, not to be complete.
        bytes.assign(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(whole.size() / 5));
        break;
    }
    case Broken::garbage: {
        uint32_t x = 2463534242u;
        bytes.resize(8192);
        for (auto& b : bytes) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            b = static_cast<uint8_t>(x);
        }
        break;
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

namespace {

// Bump when the generator changes what it writes, so stale cached files are not reused.
constexpr int kCacheVersion = 1;

std::string describe(const std::string& fileName, const Tone& t) {
    std::ostringstream s;
    s.imbue(std::locale::classic());
    s << kCacheVersion << '|' << fileName << '|' << static_cast<int>(t.format) << '|'
      << static_cast<int>(t.wave) << '|' << t.frequency << '|' << t.seconds << '|' << t.sampleRate
      << '|' << t.channels << '|' << t.bitDepth << '|' << t.bitrateKbps;
    for (const auto& [k, vs] : t.tags) {
        s << "|T" << k.size() << ':' << k;
        for (const auto& v : vs)
            s << ',' << v.size() << ':' << v;
    }
    for (const auto& c : t.covers)
        s << "|C" << static_cast<int>(c.kind) << ',' << c.width << 'x' << c.height << ',' << c.color
          << ',' << (c.mimeType ? "m" + *c.mimeType : "-") << ',' << c.pictureType << ','
          << c.description;
    return s.str();
}

} // namespace

fs::path cached(const std::string& fileName, const Tone& tone) {
    const char* base = std::getenv("TMPDIR");
    fs::path root = fs::path(base && *base ? base : "/tmp") /
                    ("trovan-fixture-cache-" + std::to_string(getuid()));
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016zx", std::hash<std::string>{}(describe(fileName, tone)));
    auto dir = root / hex;
    auto p = dir / fileName;
    std::lock_guard lock(sharedMutex);
    if (fs::exists(p)) return p;
    fs::create_directories(dir);
    // Generated aside and renamed into place, so a concurrent test process never sees a
    // half-written file and a failed encode leaves nothing behind.
    TempDir work("trovan-fixture");
    auto tmp = write(work.path(), fileName, tone);
    auto staged = dir / (".staging-" + std::to_string(getpid()) + "-" + fileName);
    fs::copy_file(tmp, staged, fs::copy_options::overwrite_existing);
    fs::rename(staged, p);
    return p;
}

fs::path copyTo(const fs::path& file, const fs::path& dir, const std::string& newName) {
    auto out = dir / (newName.empty() ? file.filename() : fs::path(newName));
    fs::copy_file(file, out, fs::copy_options::overwrite_existing);
    return out;
}

namespace {

std::vector<uint8_t> toBytes(const TagLib::ByteVector& v) {
    return {v.begin(), v.end()};
}

void collectId3(const TagLib::ID3v2::Tag* tag, std::vector<StoredPicture>& out) {
    if (!tag) return;
    for (auto* frame : tag->frameList("APIC"))
        if (auto* apic = dynamic_cast<TagLib::ID3v2::AttachedPictureFrame*>(frame))
            out.push_back({apic->mimeType().to8Bit(true), static_cast<int>(apic->type()),
                           apic->description().to8Bit(true), toBytes(apic->picture())});
}

void collectFlac(const TagLib::List<TagLib::FLAC::Picture*>& list,
                 std::vector<StoredPicture>& out) {
    for (auto* p : list)
        out.push_back({p->mimeType().to8Bit(true), static_cast<int>(p->type()),
                       p->description().to8Bit(true), toBytes(p->data())});
}

} // namespace

std::vector<StoredPicture> storedPictures(const fs::path& p) {
    std::vector<StoredPicture> out;
    auto ext = p.extension().string();
    for (auto& c : ext)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    auto open = [&](auto& f) {
        if (!f.isValid()) throw std::runtime_error("TagLib cannot open " + p.string());
    };
    if (ext == ".mp3") {
        TagLib::MPEG::File f(p.c_str());
        open(f);
        if (f.hasID3v2Tag()) collectId3(f.ID3v2Tag(), out);
    } else if (ext == ".flac") {
        TagLib::FLAC::File f(p.c_str());
        open(f);
        collectFlac(f.pictureList(), out);
        if (f.hasXiphComment()) collectFlac(f.xiphComment()->pictureList(), out);
    } else if (ext == ".m4a" || ext == ".m4b" || ext == ".mp4") {
        TagLib::MP4::File f(p.c_str());
        open(f);
        if (f.tag()->contains("covr"))
            for (const auto& art : f.tag()->item("covr").toCoverArtList()) {
                std::string mime = art.format() == TagLib::MP4::CoverArt::PNG    ? "image/png"
                                   : art.format() == TagLib::MP4::CoverArt::JPEG ? "image/jpeg"
                                                                                 : "";
                out.push_back({mime, -1, "", toBytes(art.data())});
            }
    } else if (ext == ".wav") {
        TagLib::RIFF::WAV::File f(p.c_str());
        open(f);
        if (f.hasID3v2Tag()) collectId3(f.ID3v2Tag(), out);
    } else if (ext == ".aiff" || ext == ".aif" || ext == ".aifc") {
        TagLib::RIFF::AIFF::File f(p.c_str());
        open(f);
        if (f.hasID3v2Tag()) collectId3(f.tag(), out);
    } else if (ext == ".ogg") {
        TagLib::Ogg::Vorbis::File f(p.c_str());
        open(f);
        collectFlac(f.tag()->pictureList(), out);
    } else if (ext == ".opus") {
        TagLib::Ogg::Opus::File f(p.c_str());
        open(f);
        collectFlac(f.tag()->pictureList(), out);
    } else if (ext == ".oga") {
        TagLib::Ogg::FLAC::File f(p.c_str());
        open(f);
        if (f.tag()) collectFlac(f.tag()->pictureList(), out);
    } else {
        throw std::runtime_error("no picture support for " + p.string());
    }
    return out;
}

MpegTags mpegTags(const fs::path& p) {
    TagLib::MPEG::File f(p.c_str());
    if (!f.isValid()) throw std::runtime_error("TagLib cannot open " + p.string());
    MpegTags t;
    t.id3v1 = f.hasID3v1Tag();
    t.id3v2 = f.hasID3v2Tag();
    t.ape = f.hasAPETag();
    if (t.id3v2) t.id3v2Version = static_cast<int>(f.ID3v2Tag()->header()->majorVersion());
    return t;
}

std::optional<Probe> probe(const fs::path& file) {
    auto r = runProcess({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                         "stream=codec_name,sample_rate,channels,bits_per_raw_sample:format="
                         "duration",
                         "-of", "default=noprint_wrappers=1", file.string()});
    if (r.status != 0) return std::nullopt;
    Probe p;
    bool sawStream = false;
    std::istringstream lines(r.output);
    std::string line;
    while (std::getline(lines, line)) {
        auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        auto key = line.substr(0, eq), value = line.substr(eq + 1);
        try {
            if (key == "codec_name") {
                p.codec = value;
                sawStream = true;
            } else if (key == "sample_rate") {
                p.sampleRate = std::stoi(value);
            } else if (key == "channels") {
                p.channels = std::stoi(value);
            } else if (key == "bits_per_raw_sample") {
                p.bitsPerRawSample = std::stoi(value);
            } else if (key == "duration") {
                p.seconds = std::stod(value);
            }
        } catch (const std::exception&) {
            // "N/A" values stay 0
        }
    }
    if (!sawStream) return std::nullopt;
    return p;
}

bool decodes(const fs::path& file) {
    auto r = runProcess({"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", file.string(),
                         "-map", "0:a:0", "-f", "null", "-"});
    return r.status == 0 && r.errors.empty();
}

} // namespace trovan::fixtures
