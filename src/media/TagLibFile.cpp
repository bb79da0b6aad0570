#include "media/TagLibFile.h"

#include <taglib/aifffile.h>
#include <taglib/aiffproperties.h>
#include <taglib/apefile.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/fileref.h>
#include <taglib/flacfile.h>
#include <taglib/flacpicture.h>
#include <taglib/flacproperties.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4coverart.h>
#include <taglib/mp4file.h>
#include <taglib/mp4properties.h>
#include <taglib/mp4tag.h>
#include <taglib/mpegfile.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/tdebuglistener.h>
#include <taglib/tpropertymap.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavfile.h>
#include <taglib/wavproperties.h>
#include <taglib/xiphcomment.h>

#include <array>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace trovan {

namespace {

// TagLib reports oddities of broken files on stderr in some builds; the screen is ours.
class SilentListener : public TagLib::DebugListener {
public:
    void printMessage(const TagLib::String&) override {}
};

void configure() {
    static std::once_flag once;
    std::call_once(once, [] {
        static SilentListener silent;
        TagLib::setDebugListener(&silent);
        TagLib::ID3v2::FrameFactory::instance()->setDefaultTextEncoding(TagLib::String::UTF8);
    });
}

std::string utf8(const TagLib::String& s) {
    return s.to8Bit(true);
}
TagLib::String fromUtf8(const std::string& s) {
    return TagLib::String(s, TagLib::String::UTF8);
}

constexpr const char* kDefaultMime = "image/jpeg";

std::optional<Picture> makePicture(const TagLib::ByteVector& data, const TagLib::String& mime) {
    if (data.isEmpty()) return std::nullopt;
    Picture p;
    p.data.assign(data.begin(), data.end());
    p.mimeType = mime.isEmpty() ? kDefaultMime : utf8(mime);
    return p;
}

TagLib::ByteVector bytes(const Picture& p) {
    return TagLib::ByteVector(reinterpret_cast<const char*>(p.data.data()),
                              static_cast<unsigned>(p.data.size()));
}

// ID3v2 (MPEG, WAV, AIFF): APIC frames.
std::optional<Picture> id3Picture(const TagLib::ID3v2::Tag* tag) {
    if (!tag) return std::nullopt;
    for (auto* frame : tag->frameList("APIC")) {
        auto* apic = dynamic_cast<TagLib::ID3v2::AttachedPictureFrame*>(frame);
        if (!apic) continue;
        if (auto p = makePicture(apic->picture(), apic->mimeType())) return p;
    }
    return std::nullopt;
}

void setId3Picture(TagLib::ID3v2::Tag* tag, const std::optional<Picture>& picture) {
    tag->removeFrames("APIC");
    if (!picture) return;
    auto* frame = new TagLib::ID3v2::AttachedPictureFrame;
    frame->setTextEncoding(TagLib::String::UTF8);
    frame->setMimeType(fromUtf8(picture->mimeType));
    frame->setType(TagLib::ID3v2::AttachedPictureFrame::FrontCover);
    frame->setDescription(TagLib::String());
    frame->setPicture(bytes(*picture));
    tag->addFrame(frame);
}

// FLAC picture blocks, also used inside Xiph comments.
std::optional<Picture> firstFlacPicture(const TagLib::List<TagLib::FLAC::Picture*>& list) {
    for (auto* pic : list)
        if (auto p = makePicture(pic->data(), pic->mimeType())) return p;
    return std::nullopt;
}

TagLib::FLAC::Picture* makeFlacPicture(const Picture& picture) {
    auto* pic = new TagLib::FLAC::Picture;
    pic->setType(TagLib::FLAC::Picture::FrontCover);
    pic->setMimeType(fromUtf8(picture.mimeType));
    pic->setDescription(TagLib::String());
    pic->setData(bytes(picture));
    return pic;
}

void setXiphPicture(TagLib::Ogg::XiphComment* tag, const std::optional<Picture>& picture) {
    tag->removeAllPictures();
    if (picture) tag->addPicture(makeFlacPicture(*picture));
}

// MP4 "covr" item.
std::optional<Picture> mp4Picture(const TagLib::MP4::Tag* tag) {
    if (!tag || !tag->contains("covr")) return std::nullopt;
    for (const auto& art : tag->item("covr").toCoverArtList()) {
        const char* mime = kDefaultMime;
        switch (art.format()) {
        case TagLib::MP4::CoverArt::PNG:
            mime = "image/png";
            break;
        case TagLib::MP4::CoverArt::BMP:
            mime = "image/bmp";
            break;
        case TagLib::MP4::CoverArt::GIF:
            mime = "image/gif";
            break;
        default:
            break;
        }
        if (auto p = makePicture(art.data(), mime)) return p;
    }
    return std::nullopt;
}

void setMp4Picture(TagLib::MP4::Tag* tag, const std::optional<Picture>& picture) {
    tag->removeItem("covr");
    if (!picture) return;
    auto format = TagLib::MP4::CoverArt::Unknown;
    if (picture->mimeType == "image/jpeg" || picture->mimeType == "image/jpg")
        format = TagLib::MP4::CoverArt::JPEG;
    else if (picture->mimeType == "image/png")
        format = TagLib::MP4::CoverArt::PNG;
    else if (picture->mimeType == "image/gif")
        format = TagLib::MP4::CoverArt::GIF;
    else if (picture->mimeType == "image/bmp")
        format = TagLib::MP4::CoverArt::BMP;
    TagLib::MP4::CoverArtList list;
    list.append(TagLib::MP4::CoverArt(format, bytes(*picture)));
    tag->setItem("covr", TagLib::MP4::Item(list));
}

// A read-only TagLib stream over a file descriptor with a few cached blocks. Tag and
// header parsing reads the head and the tail of a file in pieces of a few bytes to a
// kilobyte, seeking in between; through stdio each seek costs a system call or two and
// throws the buffer away. Here the pieces come from memory, and reads larger than a
// block (a tag holding a cover) go straight to the file.
class CachedReadStream final : public TagLib::IOStream {
public:
    static std::unique_ptr<CachedReadStream> open(const std::string& path) {
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return nullptr;
        struct stat st {};
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd);
            return nullptr;
        }
        return std::unique_ptr<CachedReadStream>(new CachedReadStream(fd, path, st.st_size));
    }

    ~CachedReadStream() override { ::close(fd_); }

    TagLib::FileName name() const override { return path_.c_str(); }

    TagLib::ByteVector readBlock(unsigned long length) override {
        if (length == 0 || pos_ >= size_) return {};
        const auto wanted = static_cast<long>(
            std::min<unsigned long>(length, static_cast<unsigned long>(size_ - pos_)));
        TagLib::ByteVector out(static_cast<unsigned>(wanted), 0);
        long got = 0;
        if (wanted > kBlock) {
            while (got < wanted) {
                ssize_t n = ::pread(fd_, out.data() + got, static_cast<std::size_t>(wanted - got),
                                    pos_ + got);
                if (n <= 0) break;
                got += n;
            }
        } else {
            while (got < wanted) {
                const Block& b = block((pos_ + got) / kBlock);
                const long offset = (pos_ + got) % kBlock;
                if (offset >= b.filled) break; // the file is shorter than it was
                const long n = std::min(wanted - got, b.filled - offset);
                std::memcpy(out.data() + got, b.data.get() + offset, static_cast<std::size_t>(n));
                got += n;
            }
        }
        if (got < wanted) out.resize(static_cast<unsigned>(got));
        pos_ += got;
        return out;
    }

    void writeBlock(const TagLib::ByteVector&) override {}
    void insert(const TagLib::ByteVector&, unsigned long, unsigned long) override {}
    void removeBlock(unsigned long, unsigned long) override {}
    bool readOnly() const override { return true; }
    bool isOpen() const override { return true; }

    // As fseek: a position before the start is refused, one past the end is allowed.
    void seek(long offset, Position p) override {
        const long base = p == Beginning ? 0 : p == Current ? pos_ : size_;
        if (base + offset >= 0) pos_ = base + offset;
    }

    long tell() const override { return pos_; }
    long length() override { return size_; }
    void truncate(long) override {}

private:
    static constexpr long kBlock = 32 * 1024;
    static constexpr std::size_t kBlocks = 4;

    struct Block {
        long index = -1;
        long filled = 0;
        std::unique_ptr<char[]> data;
        uint64_t used = 0;
    };

    CachedReadStream(int fd, std::string path, long size)
        : fd_(fd), path_(std::move(path)), size_(size) {}

    // The cached block with this index, read now if it is not cached (replacing the
    // one used longest ago).
    const Block& block(long index) {
        Block* slot = &blocks_[0];
        for (auto& b : blocks_) {
            if (b.index == index) {
                b.used = ++clock_;
                return b;
            }
            if (b.used < slot->used) slot = &b;
        }
        if (!slot->data) slot->data = std::make_unique<char[]>(kBlock);
        slot->index = index;
        slot->filled = 0;
        slot->used = ++clock_;
        while (slot->filled < kBlock) {
            ssize_t n = ::pread(fd_, slot->data.get() + slot->filled,
                                static_cast<std::size_t>(kBlock - slot->filled),
                                index * kBlock + slot->filled);
            if (n <= 0) break;
            slot->filled += n;
        }
        return *slot;
    }

    int fd_;
    std::string path_;
    long size_;
    long pos_ = 0;
    std::array<Block, kBlocks> blocks_;
    uint64_t clock_ = 0;
};

} // namespace

struct TagLibFile::Impl {
    std::unique_ptr<CachedReadStream> stream; // before ref: the file reads from it
    TagLib::FileRef ref;
    // The property map is built once and kept until the next write: reading a track
    // asks for several keys in a row.
    mutable std::optional<TagLib::PropertyMap> cache;

    TagLib::File* file() const { return ref.file(); }

    const TagLib::PropertyMap& props() const {
        if (!cache) cache = file()->properties();
        return *cache;
    }

    void write(const TagLib::PropertyMap& map) {
        file()->setProperties(map);
        cache.reset();
    }
};

TagLibFile::TagLibFile(std::string path, std::unique_ptr<Impl> impl)
    : path_(std::move(path)), impl_(std::move(impl)) {}

TagLibFile::~TagLibFile() = default;

std::unique_ptr<TagLibFile> TagLibFile::open(const std::string& path) {
    configure();
    auto impl = std::make_unique<Impl>();
    impl->ref = TagLib::FileRef(path.c_str(), true, TagLib::AudioProperties::Average);
    return adopt(path, std::move(impl));
}

std::unique_ptr<TagLibFile> TagLibFile::openForReading(const std::string& path) {
    configure();
    auto impl = std::make_unique<Impl>();
    impl->stream = CachedReadStream::open(path);
    if (!impl->stream) return nullptr;
    impl->ref = TagLib::FileRef(impl->stream.get(), true, TagLib::AudioProperties::Average);
    return adopt(path, std::move(impl));
}

std::unique_ptr<TagLibFile> TagLibFile::adopt(const std::string& path, std::unique_ptr<Impl> impl) {
    if (impl->ref.isNull() || !impl->file()->isValid()) return nullptr;
    return std::unique_ptr<TagLibFile>(new TagLibFile(path, std::move(impl)));
}

std::optional<std::string> TagLibFile::value(const std::string& key) const {
    const auto& map = impl_->props();
    auto it = map.find(fromUtf8(key));
    if (it == map.end() || it->second.isEmpty()) return std::nullopt;
    return utf8(it->second.front());
}

std::map<std::string, std::vector<std::string>> TagLibFile::properties() const {
    std::map<std::string, std::vector<std::string>> out;
    for (const auto& [key, values] : impl_->props()) {
        auto& list = out[utf8(key)];
        for (const auto& v : values)
            list.push_back(utf8(v));
    }
    return out;
}

void TagLibFile::remove(const std::string& key) {
    auto map = impl_->props();
    map.erase(fromUtf8(key));
    impl_->write(map);
}

void TagLibFile::append(const std::string& key, const std::vector<std::string>& values) {
    if (values.empty()) return;
    auto map = impl_->props();
    auto k = fromUtf8(key);
    TagLib::StringList list = map.contains(k) ? map[k] : TagLib::StringList();
    for (const auto& v : values)
        list.append(fromUtf8(v));
    map.replace(k, list);
    impl_->write(map);
}

void TagLibFile::set(const std::string& key, const std::vector<std::string>& values) {
    auto map = impl_->props();
    auto k = fromUtf8(key);
    map.erase(k);
    // An empty value is no value: Xiph comments drop it, ID3v2 frames cannot hold it among
    // others, MP4 would keep it. Leaving it out makes every format read back alike.
    TagLib::StringList list;
    for (const auto& v : values)
        if (!v.empty()) list.append(fromUtf8(v));
    if (!list.isEmpty()) map.insert(k, list);
    impl_->write(map);
}

bool TagLibFile::save() {
    auto* file = impl_->file();
    if (auto* mpeg = dynamic_cast<TagLib::MPEG::File*>(file)) {
        // The plain save() would add a Latin-1 ID3v1 tag; keep only the tags already there.
        int tags = TagLib::MPEG::File::ID3v2;
        if (mpeg->hasID3v1Tag()) tags |= TagLib::MPEG::File::ID3v1;
        if (mpeg->hasAPETag()) tags |= TagLib::MPEG::File::APE;
        return mpeg->save(tags, TagLib::File::StripNone, TagLib::ID3v2::v4,
                          TagLib::File::DoNotDuplicate);
    }
    return file->save();
}

std::optional<TagLibFile::AudioProperties> TagLibFile::audioProperties() const {
    const auto* props = impl_->file()->audioProperties();
    if (!props) return std::nullopt;
    AudioProperties out;
    out.lengthSeconds = props->lengthInSeconds();
    out.lengthMs = props->lengthInMilliseconds();
    out.bitrate = props->bitrate();
    out.sampleRate = props->sampleRate();
    out.channels = props->channels();
    if (auto* p = dynamic_cast<const TagLib::FLAC::Properties*>(props)) {
        out.bitsPerSample = p->bitsPerSample();
    } else if (auto* p = dynamic_cast<const TagLib::MP4::Properties*>(props)) {
        if (p->codec() == TagLib::MP4::Properties::ALAC) {
            out.codec = "ALAC";
            out.bitsPerSample = p->bitsPerSample();
        } else if (p->codec() == TagLib::MP4::Properties::AAC) {
            out.codec = "AAC";
        }
    } else if (auto* p = dynamic_cast<const TagLib::RIFF::WAV::Properties*>(props)) {
        out.bitsPerSample = p->bitsPerSample();
    } else if (auto* p = dynamic_cast<const TagLib::RIFF::AIFF::Properties*>(props)) {
        out.bitsPerSample = p->bitsPerSample();
    }
    return out;
}

std::optional<Picture> TagLibFile::picture() const {
    auto* file = impl_->file();
    if (auto* f = dynamic_cast<TagLib::MPEG::File*>(file))
        return f->hasID3v2Tag() ? id3Picture(f->ID3v2Tag()) : std::nullopt;
    if (auto* f = dynamic_cast<TagLib::FLAC::File*>(file)) {
        if (auto p = firstFlacPicture(f->pictureList())) return p;
        return f->hasXiphComment() ? firstFlacPicture(f->xiphComment()->pictureList())
                                   : std::nullopt;
    }
    if (auto* f = dynamic_cast<TagLib::MP4::File*>(file)) return mp4Picture(f->tag());
    if (auto* f = dynamic_cast<TagLib::RIFF::WAV::File*>(file))
        return f->hasID3v2Tag() ? id3Picture(f->ID3v2Tag()) : std::nullopt;
    if (auto* f = dynamic_cast<TagLib::RIFF::AIFF::File*>(file))
        return f->hasID3v2Tag() ? id3Picture(f->tag()) : std::nullopt;
    if (auto* f = dynamic_cast<TagLib::Ogg::Vorbis::File*>(file))
        return firstFlacPicture(f->tag()->pictureList());
    if (auto* f = dynamic_cast<TagLib::Ogg::Opus::File*>(file))
        return firstFlacPicture(f->tag()->pictureList());
    if (auto* f = dynamic_cast<TagLib::Ogg::FLAC::File*>(file))
        return f->tag() ? firstFlacPicture(f->tag()->pictureList()) : std::nullopt;
    return std::nullopt;
}

bool TagLibFile::setPicture(const std::optional<Picture>& picture) {
    auto* file = impl_->file();
    if (auto* f = dynamic_cast<TagLib::MPEG::File*>(file)) {
        setId3Picture(f->ID3v2Tag(true), picture);
    } else if (auto* f = dynamic_cast<TagLib::FLAC::File*>(file)) {
        f->removePictures();
        if (f->hasXiphComment()) f->xiphComment()->removeAllPictures();
        if (picture) f->addPicture(makeFlacPicture(*picture));
    } else if (auto* f = dynamic_cast<TagLib::MP4::File*>(file)) {
        setMp4Picture(f->tag(), picture);
    } else if (auto* f = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        setId3Picture(f->ID3v2Tag(), picture);
    } else if (auto* f = dynamic_cast<TagLib::RIFF::AIFF::File*>(file)) {
        setId3Picture(f->tag(), picture);
    } else if (auto* f = dynamic_cast<TagLib::Ogg::Vorbis::File*>(file)) {
        setXiphPicture(f->tag(), picture);
    } else if (auto* f = dynamic_cast<TagLib::Ogg::Opus::File*>(file)) {
        setXiphPicture(f->tag(), picture);
    } else if (auto* f = dynamic_cast<TagLib::Ogg::FLAC::File*>(file)) {
        if (!f->tag()) return false;
        setXiphPicture(f->tag(), picture);
    } else {
        return false;
    }
    return true;
}

} // namespace trovan
