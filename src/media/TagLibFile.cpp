// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/TagLibFile.h"

#include <taglib/aifffile.h>
#include <taglib/aiffproperties.h>
#include <taglib/apefile.h>
#include <taglib/apetag.h>
#include <taglib/asftag.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/commentsframe.h>
#include <taglib/fileref.h>
#include <taglib/flacfile.h>
#include <taglib/flacpicture.h>
#include <taglib/flacproperties.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2tag.h>
#include <taglib/infotag.h>
#include <taglib/mp4coverart.h>
#include <taglib/mp4file.h>
#include <taglib/mp4properties.h>
#include <taglib/mp4tag.h>
#include <taglib/mpegfile.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/podcastframe.h>
#include <taglib/tdebuglistener.h>
#include <taglib/textidentificationframe.h>
#include <taglib/tpropertymap.h>
#include <taglib/uniquefileidentifierframe.h>
#include <taglib/unknownframe.h>
#include <taglib/unsynchronizedlyricsframe.h>
#include <taglib/urllinkframe.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavfile.h>
#include <taglib/wavproperties.h>
#include <taglib/xiphcomment.h>

#include <algorithm>
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
        // Some of TagLib's key tables (MP4's among them) are filled on first use without a
        // lock, and scans and tag writes run on several threads: fill them all here, once.
        const TagLib::PropertyMap none;
        auto warm = [&none](auto&& tag) {
            tag.properties();
            tag.setProperties(none);
        };
        warm(TagLib::MP4::Tag());
        warm(TagLib::ASF::Tag());
        warm(TagLib::ID3v2::Tag());
        warm(TagLib::APE::Tag());
        warm(TagLib::RIFF::Info::Tag());
        warm(TagLib::Ogg::XiphComment());
        // No default text encoding for ID3v2: TagLib would impose it on every frame it
        // reads, re-encoding frames nobody edited. New frames get UTF-8 where made.
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

// --- Changing one key and nothing else. Handing TagLib a whole property map back makes
// it rebuild every frame or item whose text differs from the map's: frames that share a
// key are merged, descriptions and languages lost, items retyped. Each kind of tag is
// edited at its own level instead, touching only what holds the key. An empty list of
// values removes the key.

using Values = TagLib::StringList;

// The keys a frame shows in the property map. TagLib keeps the base class's accessor to
// itself and it is not virtual: each kind's own is called, the derived kinds first.
TagLib::PropertyMap keysOf(const TagLib::ID3v2::Frame* frame) {
    using namespace TagLib::ID3v2;
    if (auto* f = dynamic_cast<const UserTextIdentificationFrame*>(frame)) return f->asProperties();
    if (auto* f = dynamic_cast<const TextIdentificationFrame*>(frame)) return f->asProperties();
    if (auto* f = dynamic_cast<const UserUrlLinkFrame*>(frame)) return f->asProperties();
    if (auto* f = dynamic_cast<const CommentsFrame*>(frame)) return f->asProperties();
    if (auto* f = dynamic_cast<const UnsynchronizedLyricsFrame*>(frame)) return f->asProperties();
    if (auto* f = dynamic_cast<const UrlLinkFrame*>(frame)) return f->asProperties();
    if (auto* f = dynamic_cast<const UniqueFileIdentifierFrame*>(frame)) return f->asProperties();
    if (auto* f = dynamic_cast<const PodcastFrame*>(frame)) return f->asProperties();
    return {};
}

bool holdsKey(const TagLib::ID3v2::Frame* frame, const TagLib::String& key) {
    return keysOf(frame).contains(key);
}

// Involved people and musician credits: role and name pairs, several keys in one frame.
bool holdsPairs(const TagLib::ID3v2::Frame* frame) {
    const auto id = frame->frameID();
    return id == "TIPL" || id == "TMCL";
}

// Comments, lyrics and links hold one value per frame; text frames hold a list.
bool holdsOneValue(const TagLib::ID3v2::Frame* frame) {
    using namespace TagLib::ID3v2;
    return dynamic_cast<const CommentsFrame*>(frame) ||
           dynamic_cast<const UnsynchronizedLyricsFrame*>(frame) ||
           dynamic_cast<const UrlLinkFrame*>(frame);
}

void setOneValue(TagLib::ID3v2::Frame* frame, const TagLib::String& value) {
    if (auto* url = dynamic_cast<TagLib::ID3v2::UrlLinkFrame*>(frame))
        url->setUrl(value);
    else
        frame->setText(value);
}

// Frames made here hold UTF-8 text (TagLib widens it to UTF-16 in an ID3v2.3 tag).
TagLib::ID3v2::Frame* inUtf8(TagLib::ID3v2::Frame* frame) {
    using namespace TagLib::ID3v2;
    constexpr auto utf8 = TagLib::String::UTF8;
    if (auto* f = dynamic_cast<TextIdentificationFrame*>(frame))
        f->setTextEncoding(utf8);
    else if (auto* f = dynamic_cast<CommentsFrame*>(frame))
        f->setTextEncoding(utf8);
    else if (auto* f = dynamic_cast<UnsynchronizedLyricsFrame*>(frame))
        f->setTextEncoding(utf8);
    else if (auto* f = dynamic_cast<UserUrlLinkFrame*>(frame))
        f->setTextEncoding(utf8);
    return frame;
}

// A frame of the key holding `value`: like `model` (kind, description, language and
// encoding) when there is one.
TagLib::ID3v2::Frame* frameFor(const TagLib::String& key, const TagLib::String& value,
                               const TagLib::ID3v2::Frame* model) {
    using namespace TagLib::ID3v2;
    if (auto* c = dynamic_cast<const CommentsFrame*>(model)) {
        auto* f = new CommentsFrame(c->textEncoding());
        f->setLanguage(c->language());
        f->setDescription(c->description());
        f->setText(value);
        return f;
    }
    if (auto* u = dynamic_cast<const UnsynchronizedLyricsFrame*>(model)) {
        auto* f = new UnsynchronizedLyricsFrame(u->textEncoding());
        f->setLanguage(u->language());
        f->setDescription(u->description());
        f->setText(value);
        return f;
    }
    if (auto* w = dynamic_cast<const UserUrlLinkFrame*>(model)) {
        auto* f = new UserUrlLinkFrame(w->textEncoding());
        f->setDescription(w->description());
        f->setUrl(value);
        return f;
    }
    return inUtf8(Frame::createTextualFrame(key, Values(value)));
}

// New frames for a key the tag does not hold: TagLib's own choice of frame, but one
// frame per value for the kinds that hold one (TagLib would fall back to a TXXX frame).
void addFrames(TagLib::ID3v2::Tag* tag, const TagLib::String& key, const Values& values) {
    using TagLib::ID3v2::Frame;
    Frame* first = Frame::createTextualFrame(key, values);
    if (!first) return;
    if (values.size() > 1) {
        delete first;
        first = Frame::createTextualFrame(key, Values(values.front()));
        if (!first) return;
        if (!holdsOneValue(first)) {
            delete first;
            tag->addFrame(inUtf8(Frame::createTextualFrame(key, values)));
            return;
        }
        inUtf8(first);
        tag->addFrame(first);
        for (auto it = std::next(values.begin()); it != values.end(); ++it)
            if (auto* f = frameFor(key, *it, first)) tag->addFrame(f);
        return;
    }
    tag->addFrame(inUtf8(first));
}

void editPairFrames(TagLib::ID3v2::Tag* tag, const TagLib::String& key, const Values& values,
                    const std::vector<TagLib::ID3v2::Frame*>& frames) {
    using namespace TagLib::ID3v2;
    TagLib::PropertyMap people, credits;
    for (auto* frame : frames) {
        auto& into = frame->frameID() == "TIPL" ? people : credits;
        for (const auto& [k, v] : keysOf(frame))
            into.insert(k, v);
    }
    auto& home = frames.front()->frameID() == "TIPL" ? people : credits;
    people.erase(key);
    credits.erase(key);
    if (!values.isEmpty()) home.insert(key, values);
    for (auto* frame : frames)
        tag->removeFrame(frame);
    if (!people.isEmpty()) tag->addFrame(inUtf8(TextIdentificationFrame::createTIPLFrame(people)));
    if (!credits.isEmpty())
        tag->addFrame(inUtf8(TextIdentificationFrame::createTMCLFrame(credits)));
}

void editId3v2(TagLib::ID3v2::Tag* tag, const TagLib::String& key, const Values& values) {
    using namespace TagLib::ID3v2;
    std::vector<Frame*> hits, pairs;
    for (auto* frame : tag->frameList())
        if (holdsKey(frame, key)) (holdsPairs(frame) ? pairs : hits).push_back(frame);
    if (!pairs.empty()) {
        for (auto* frame : hits)
            tag->removeFrame(frame);
        editPairFrames(tag, key, values, pairs);
        return;
    }
    if (values.isEmpty() || hits.empty()) {
        for (auto* frame : hits)
            tag->removeFrame(frame);
        if (!values.isEmpty()) addFrames(tag, key, values);
        return;
    }
    // The frames already there take the new values: they keep their place, description,
    // language and encoding (TagLib widens a Latin-1 frame that needs it).
    auto all = [&](auto test) { return std::all_of(hits.begin(), hits.end(), test); };
    if (all([](Frame* f) { return dynamic_cast<TextIdentificationFrame*>(f) != nullptr; })) {
        if (auto* user = dynamic_cast<UserTextIdentificationFrame*>(hits.front()))
            user->setText(values); // keeps the description
        else
            static_cast<TextIdentificationFrame*>(hits.front())->setText(values);
        for (std::size_t i = 1; i < hits.size(); ++i)
            tag->removeFrame(hits[i]);
    } else if (all([](Frame* f) { return holdsOneValue(f); })) {
        const std::size_t kept = std::min<std::size_t>(hits.size(), values.size());
        for (std::size_t i = 0; i < kept; ++i)
            setOneValue(hits[i], values[static_cast<unsigned>(i)]);
        for (std::size_t i = kept; i < hits.size(); ++i)
            tag->removeFrame(hits[i]);
        for (std::size_t i = kept; i < values.size(); ++i)
            if (auto* f = frameFor(key, values[static_cast<unsigned>(i)], hits.front()))
                tag->addFrame(f);
    } else {
        for (auto* frame : hits)
            tag->removeFrame(frame);
        addFrames(tag, key, values);
    }
}

// A tag new to the file starts with what the file showed so far (from the tags TagLib
// reads but does not write to, such as ID3v1), so that adding it hides nothing.
void seedId3v2(TagLib::ID3v2::Tag* tag, const TagLib::PropertyMap& shown) {
    for (const auto& [key, values] : shown)
        addFrames(tag, key, values);
}

void editXiph(TagLib::Ogg::XiphComment* tag, const TagLib::String& key, const Values& values) {
    tag->removeFields(key);
    for (const auto& v : values)
        tag->addField(key, v, false);
}

void editMp4(TagLib::MP4::Tag* tag, const TagLib::String& key, const Values& values) {
    const TagLib::MP4::ItemMap before = tag->itemMap();
    const TagLib::PropertyMap shown = tag->properties();
    // The items that hold the key: without them it reads otherwise.
    std::vector<TagLib::String> holders;
    if (shown.contains(key)) {
        for (const auto& [name, item] : before) {
            tag->removeItem(name);
            const auto without = tag->properties();
            if (!without.contains(key) || without.find(key)->second != shown.find(key)->second)
                holders.push_back(name);
            tag->setItem(name, item);
        }
    }
    TagLib::PropertyMap changed = shown;
    changed.erase(key);
    if (!values.isEmpty()) changed.insert(key, values);
    tag->setProperties(changed);
    // TagLib rebuilt every item from its text; the others go back exactly as they were.
    for (const auto& [name, item] : before)
        if (std::find(holders.begin(), holders.end(), name) == holders.end())
            tag->setItem(name, item);
}

// RIFF INFO: TagLib sets every field again from the map, shortening some (a full date
// becomes its year); the fields that do not hold the key go back as they were.
void editInfo(TagLib::RIFF::Info::Tag* tag, const TagLib::String& key, const Values& values) {
    const auto before = tag->fieldListMap();
    const auto shown = tag->properties();
    std::vector<TagLib::ByteVector> holders;
    if (shown.contains(key)) {
        for (const auto& [id, text] : before) {
            tag->removeField(id);
            const auto without = tag->properties();
            if (!without.contains(key) || without.find(key)->second != shown.find(key)->second)
                holders.push_back(id);
            tag->setFieldText(id, text);
        }
    }
    auto changed = shown;
    changed.erase(key);
    if (!values.isEmpty()) changed.insert(key, values);
    tag->setProperties(changed);
    for (const auto& [id, text] : before)
        if (std::find(holders.begin(), holders.end(), id) == holders.end())
            tag->setFieldText(id, text);
}

// Tags whose property maps hold all they have (APE, ID3v1, ASF): TagLib rewrites only
// the keys whose values differ.
template <class Tag> void editMap(Tag* tag, const TagLib::String& key, const Values& values) {
    auto map = tag->properties();
    if (!map.contains(key) && values.isEmpty()) return;
    map.erase(key);
    if (!values.isEmpty()) map.insert(key, values);
    tag->setProperties(map);
}

void editKey(TagLib::File* file, const TagLib::String& key, const Values& values) {
    if (auto* f = dynamic_cast<TagLib::MPEG::File*>(file)) {
        if (!f->hasID3v2Tag() && f->hasAPETag()) {
            editMap(f->APETag(), key, values);
        } else {
            if (!f->hasID3v2Tag() && !f->ID3v2Tag()) {
                const auto shown = file->properties();
                seedId3v2(f->ID3v2Tag(true), shown);
            }
            editId3v2(f->ID3v2Tag(true), key, values);
            if (f->hasAPETag()) editMap(f->APETag(), key, values);
        }
        if (f->hasID3v1Tag()) editMap(f->ID3v1Tag(), key, values);
    } else if (auto* f = dynamic_cast<TagLib::FLAC::File*>(file)) {
        if (!f->hasXiphComment()) {
            const auto shown = file->properties();
            auto* tag = f->xiphComment(true);
            for (const auto& [k, v] : shown)
                editXiph(tag, k, v);
        }
        editXiph(f->xiphComment(true), key, values);
    } else if (auto* xiph = dynamic_cast<TagLib::Ogg::XiphComment*>(file->tag())) {
        editXiph(xiph, key, values);
    } else if (auto* f = dynamic_cast<TagLib::MP4::File*>(file)) {
        if (f->tag()) editMp4(f->tag(), key, values);
    } else if (auto* f = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        if (f->hasID3v2Tag() || !f->hasInfoTag()) editId3v2(f->ID3v2Tag(), key, values);
        if (f->hasInfoTag()) editInfo(f->InfoTag(), key, values);
    } else if (auto* f = dynamic_cast<TagLib::RIFF::AIFF::File*>(file)) {
        editId3v2(f->tag(), key, values);
    } else {
        editMap(file, key, values);
    }
}

// Frames TagLib reads but does not write again: ID3v2.2 frames it cannot convert (three
// letter names) and ID3v2.3 frames ID3v2.4 has no place for. It would drop them from the
// file on any save; such a file is not saved at all.
bool dropsFrames(const TagLib::ID3v2::Tag* tag) {
    static const std::array<TagLib::ByteVector, 6> gone = {"EQUA", "RVAD", "TIME",
                                                           "TRDA", "TSIZ", "TDAT"};
    if (!tag) return false;
    for (const auto* frame : tag->frameList()) {
        if (!dynamic_cast<const TagLib::ID3v2::UnknownFrame*>(frame)) continue;
        const auto id = frame->frameID();
        if (id.size() != 4 || std::find(gone.begin(), gone.end(), id) != gone.end()) return true;
    }
    return false;
}

bool dropsFrames(TagLib::File* file) {
    if (auto* f = dynamic_cast<TagLib::MPEG::File*>(file))
        return f->hasID3v2Tag() && dropsFrames(f->ID3v2Tag());
    if (auto* f = dynamic_cast<TagLib::RIFF::WAV::File*>(file))
        return f->hasID3v2Tag() && dropsFrames(f->ID3v2Tag());
    if (auto* f = dynamic_cast<TagLib::RIFF::AIFF::File*>(file))
        return f->hasID3v2Tag() && dropsFrames(f->tag());
    if (auto* f = dynamic_cast<TagLib::FLAC::File*>(file))
        return f->hasID3v2Tag() && dropsFrames(f->ID3v2Tag());
    return false;
}

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

    void edit(const std::string& key, const Values& values) {
        editKey(file(), fromUtf8(key), values);
        cache.reset();
    }
};

std::string Picture::mimeTypeOf(const std::vector<uint8_t>& data) {
    auto starts = [&](std::size_t at, std::string_view magic) {
        return data.size() >= at + magic.size() &&
               std::equal(magic.begin(), magic.end(), data.begin() + static_cast<long>(at),
                          [](char m, uint8_t b) { return static_cast<uint8_t>(m) == b; });
    };
    if (starts(0, "\xFF\xD8\xFF")) return "image/jpeg";
    if (starts(0, "\x89PNG\r\n\x1A\n")) return "image/png";
    if (starts(0, "GIF87a") || starts(0, "GIF89a")) return "image/gif";
    if (starts(0, "BM") && data.size() >= 26) return "image/bmp";
    if (starts(0, "RIFF") && starts(8, "WEBP")) return "image/webp";
    return {};
}

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
    impl_->edit(key, {});
}

void TagLibFile::append(const std::string& key, const std::vector<std::string>& values) {
    if (values.empty()) return;
    auto all = value(key) ? properties()[key] : std::vector<std::string>();
    all.insert(all.end(), values.begin(), values.end());
    set(key, all);
}

void TagLibFile::set(const std::string& key, const std::vector<std::string>& values) {
    // An empty value is no value: Xiph comments drop it, ID3v2 frames cannot hold it among
    // others, MP4 would keep it. Leaving it out makes every format read back alike.
    Values list;
    for (const auto& v : values)
        if (!v.empty()) list.append(fromUtf8(v));
    impl_->edit(key, list);
}

bool TagLibFile::save() {
    auto* file = impl_->file();
    if (dropsFrames(file)) return false;
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
