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
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;

namespace trovan::fixtures {

namespace {

// "a b c" -> {"a", "b", "c"}
std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

void runChecked(const std::vector<std::string>& argv) {
    auto r = runProcess(argv);
    if (r.status == 0) return;
    std::string cmd;
    for (const auto& a : argv)
        cmd += a + " ";
    throw std::runtime_error("fixture command failed: " + cmd + "\n" + r.errors);
}

// Runs ffmpeg on a generated input (lavfi source) and writes `out`.
void ffmpeg(const std::string& source, const std::string& options, const fs::path& out) {
    auto argv = words("ffmpeg -nostdin -v error -y -f lavfi -i");
    argv.push_back(source);
    for (auto& w : words(options))
        argv.push_back(w);
    argv.push_back(out.string());
    runChecked(argv);
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

// Per format: extension, readable name, encoder options for 16 and 24 bit (none: the
// same for both), and the default bitrate of lossy encoders.
struct FormatInfo {
    Format format;
    const char *extension, *name, *options, *deepOptions;
    int kbps;
};
const FormatInfo kFormats[] = {
    {Format::flac, "flac", "flac", "-c:a flac -sample_fmt s16 -f flac",
     "-c:a flac -sample_fmt s32 -bits_per_raw_sample 24 -f flac", 0},
    {Format::mp3, "mp3", "mp3", "-c:a libmp3lame -id3v2_version 0 -write_id3v1 0 -f mp3", 0, 128},
    {Format::aac, "m4a", "aac", "-c:a aac -f ipod", 0, 128},
    {Format::alac, "m4a", "alac", "-c:a alac -sample_fmt s16p -f ipod",
     "-c:a alac -sample_fmt s32p -f ipod", 0},
    {Format::adts, "aac", "adts", "-c:a aac -f adts", 0, 128},
    {Format::wav, "wav", "wav", "-c:a pcm_s16le -f wav", "-c:a pcm_s24le -f wav", 0},
    {Format::aiff, "aiff", "aiff", "-c:a pcm_s16be -f aiff", "-c:a pcm_s24be -f aiff", 0},
    // Little-endian PCM makes it AIFF-C ("sowt").
    {Format::aifc, "aifc", "aifc", "-c:a pcm_s16le -f aiff", 0, 0},
    {Format::caf, "caf", "caf", "-c:a pcm_s16le -f caf", "-c:a pcm_s24le -f caf", 0},
    {Format::vorbis, "ogg", "vorbis", "-c:a libvorbis -f ogg", 0, 96},
    {Format::opus, "opus", "opus", "-c:a libopus -f opus", 0, 64},
    {Format::oggFlac, "oga", "oggflac", "-c:a flac -sample_fmt s16 -f ogg", 0, 0}};

std::string encoderOptions(const Tone& t) {
    const auto& f = kFormats[static_cast<int>(t.format)];
    std::string options = t.bitDepth > 16 && f.deepOptions ? f.deepOptions : f.options;
    if (f.kbps)
        options += " -b:a " + std::to_string(t.bitrateKbps > 0 ? t.bitrateKbps : f.kbps) + "k";
    return options;
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

template <class File> bool saveXiph(const fs::path& p, const Tone& t) {
    File f(p.c_str());
    auto* tag = tagged(opened(f, p).tag(), t);
    for (const auto& c : t.covers)
        tag->addPicture(flacPicture(c));
    return f.save();
}

void writeTags(const fs::path& p, const Tone& t) {
    if (t.tags.empty() && t.covers.empty()) return;
    bool saved = false;
    switch (t.format) {
    case Format::flac: {
        TagLib::FLAC::File f(p.c_str());
        tagged(opened(f, p).xiphComment(true), t);
        for (const auto& c : t.covers)
            f.addPicture(flacPicture(c));
        saved = f.save();
        break;
    }
    case Format::mp3: {
        TagLib::MPEG::File f(p.c_str());
        tagId3(opened(f, p).ID3v2Tag(true), t);
        saved = f.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripOthers, TagLib::ID3v2::v4,
                       TagLib::File::DoNotDuplicate);
        break;
    }
    case Format::aac:
    case Format::alac: {
        TagLib::MP4::File f(p.c_str());
        TagLib::MP4::CoverArtList list;
        for (const auto& c : t.covers)
            list.append({mimeOf(c) == "image/png"    ? TagLib::MP4::CoverArt::PNG
                         : mimeOf(c) == "image/jpeg" ? TagLib::MP4::CoverArt::JPEG
                                                     : TagLib::MP4::CoverArt::Unknown,
                         bytesOf(c)});
        tagged(opened(f, p).tag(), t);
        if (!list.isEmpty()) f.tag()->setItem("covr", TagLib::MP4::Item(list));
        saved = f.save();
        break;
    }
    case Format::wav: {
        TagLib::RIFF::WAV::File f(p.c_str());
        tagId3(opened(f, p).ID3v2Tag(), t);
        saved =
            f.save(TagLib::RIFF::WAV::File::ID3v2, TagLib::File::StripOthers, TagLib::ID3v2::v4);
        break;
    }
    case Format::aiff:
    case Format::aifc: {
        TagLib::RIFF::AIFF::File f(p.c_str());
        tagId3(opened(f, p).tag(), t);
        saved = f.save();
        break;
    }
    case Format::vorbis:
        saved = saveXiph<TagLib::Ogg::Vorbis::File>(p, t);
        break;
    case Format::opus:
        saved = saveXiph<TagLib::Ogg::Opus::File>(p, t);
        break;
    case Format::oggFlac:
        saved = saveXiph<TagLib::Ogg::FLAC::File>(p, t);
        break;
    case Format::adts:
    case Format::caf:
        throw std::runtime_error("fixture format " + name(t.format) + " cannot carry tags");
    }
    if (!saved) throw std::runtime_error("TagLib cannot save fixture " + p.string());
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

const std::vector<Format>& allFormats() {
    static const std::vector<Format> all = [] {
        std::vector<Format> out;
        for (const auto& f : kFormats)
            out.push_back(f.format);
        return out;
    }();
    return all;
}

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
    auto rate = std::to_string(t.sampleRate), length = number(t.seconds);
    ffmpeg(t.wave == Wave::noise
               ? "anoisesrc=sample_rate=" + rate + ":amplitude=0.8:seed=7:duration=" + length
               : "sine=frequency=" + number(t.frequency) + ":sample_rate=" + rate +
                     ":duration=" + length,
           "-ac " + std::to_string(t.channels) + " -map_metadata -1 -fflags +bitexact " +
               encoderOptions(t),
           out);
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
    std::ostringstream key;
    key.imbue(std::locale::classic());
    key << 1 << '|' << fileName << '|' << static_cast<int>(t.format) << '|'
        << static_cast<int>(t.wave) << '|' << t.frequency << '|' << t.seconds << '|' << t.sampleRate
        << '|' << t.channels << '|' << t.bitDepth << '|' << t.bitrateKbps;
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
                         "default=nw=1", file.string()});
    std::optional<Probe> p;
    std::istringstream lines(r.output);
    for (std::string line; r.status == 0 && std::getline(lines, line);) {
        auto eq = line.find('=');
        auto key = line.substr(0, eq), value = line.substr(eq + 1);
        if (key == "codec_name") p = Probe{value};
        // "N/A" values stay 0.
        if (!p || value.empty() || !std::isdigit(static_cast<unsigned char>(value[0]))) continue;
        if (key == "sample_rate") p->sampleRate = std::stoi(value);
        if (key == "channels") p->channels = std::stoi(value);
        if (key == "duration") p->seconds = std::stod(value);
    }
    return p;
}

bool decodes(const fs::path& file) {
    auto r = runProcess({"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", file.string(),
                         "-map", "0:a:0", "-f", "null", "-"});
    return r.status == 0 && r.errors.empty();
}

} // namespace trovan::fixtures
