// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Every tag entry of a file as TagLib's per-format classes hold it, read apart from the
// program's own tag code (which goes through property maps): ID3v2 frames with their
// encoding, language and description, MP4 items with their data type, Xiph fields, APE
// items, RIFF INFO fields, ASF attributes. For tests that check a write left alone what
// it was not asked to change.

#include <taglib/aifffile.h>
#include <taglib/apefile.h>
#include <taglib/apetag.h>
#include <taglib/asffile.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/commentsframe.h>
#include <taglib/fileref.h>
#include <taglib/flacfile.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2tag.h>
#include <taglib/infotag.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/textidentificationframe.h>
#include <taglib/tpropertymap.h>
#include <taglib/unsynchronizedlyricsframe.h>
#include <taglib/urllinkframe.h>
#include <taglib/wavfile.h>
#include <taglib/xiphcomment.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace trovan::rawtags {

// Tag kind and entry name (e.g. "id3v2 COMM") → a description of the entry's content.
// Entries sharing a name keep their order.
using Entries = std::multimap<std::string, std::string>;

inline std::string str(const TagLib::String& s) {
    return s.to8Bit(true);
}

inline std::string joined(const TagLib::StringList& list) {
    std::string out;
    for (const auto& s : list)
        out += str(s) + '\x1f';
    return out;
}

inline std::string hex(const TagLib::ByteVector& data) {
    return std::string(data.toHex().data(), data.toHex().size());
}

// `exact`: also the frame as TagLib renders it, byte for byte (only meaningful when the
// tag's version cannot change on the way, as for files that already hold ID3v2.4).
inline std::string describe(const TagLib::ID3v2::Frame* f, bool exact) {
    using namespace TagLib::ID3v2;
    std::string out;
    if (auto* t = dynamic_cast<const TextIdentificationFrame*>(f))
        out = "enc " + std::to_string(t->textEncoding()) + " " + joined(t->fieldList());
    else if (auto* c = dynamic_cast<const CommentsFrame*>(f))
        out = "enc " + std::to_string(c->textEncoding()) + " lang " + hex(c->language()) +
              " desc " + str(c->description()) + " " + str(c->text());
    else if (auto* u = dynamic_cast<const UnsynchronizedLyricsFrame*>(f))
        out = "enc " + std::to_string(u->textEncoding()) + " lang " + hex(u->language()) +
              " desc " + str(u->description()) + " " + str(u->text());
    else if (auto* w = dynamic_cast<const UserUrlLinkFrame*>(f))
        out = "enc " + std::to_string(w->textEncoding()) + " desc " + str(w->description()) + " " +
              str(w->url());
    else if (auto* l = dynamic_cast<const UrlLinkFrame*>(f))
        out = str(l->url());
    else if (auto* p = dynamic_cast<const AttachedPictureFrame*>(f))
        out = str(p->mimeType()) + " " + std::to_string(p->type()) + " " +
              std::to_string(p->picture().size()) + " " + std::to_string(p->picture().checksum());
    else
        out = hex(f->render().mid(10)); // past the header, whose size field varies by version
    if (exact) out += " | " + hex(f->render());
    return out;
}

inline void addId3v2(Entries& out, const TagLib::ID3v2::Tag* tag, bool exact) {
    if (!tag) return;
    for (const auto* frame : tag->frameList())
        out.emplace("id3v2 " + std::string(frame->frameID().data(), frame->frameID().size()),
                    describe(frame, exact));
}

inline void addXiph(Entries& out, TagLib::Ogg::XiphComment* tag) {
    if (!tag) return;
    for (const auto& [key, values] : tag->fieldListMap())
        out.emplace("xiph " + str(key), joined(values));
    for (const auto* picture : tag->pictureList())
        out.emplace("xiph picture", std::to_string(picture->data().checksum()));
}

inline void addApe(Entries& out, TagLib::APE::Tag* tag) {
    if (!tag) return;
    for (const auto& [key, item] : tag->itemListMap())
        out.emplace("ape " + str(key), std::to_string(item.type()) + " " + joined(item.values()) +
                                           hex(item.binaryData()));
}

inline void addId3v1(Entries& out, TagLib::ID3v1::Tag* tag) {
    if (!tag) return;
    out.emplace("id3v1 TITLE", str(tag->title()));
    out.emplace("id3v1 rest", str(tag->artist()) + "|" + str(tag->album()) + "|" +
                                  str(tag->comment()) + "|" + str(tag->genre()) + "|" +
                                  std::to_string(tag->year()) + "|" + std::to_string(tag->track()));
}

inline Entries read(const std::filesystem::path& path, bool exact = false) {
    Entries out;
    TagLib::FileRef ref(path.c_str(), false);
    if (ref.isNull()) return out;
    TagLib::File* file = ref.file();
    if (auto* f = dynamic_cast<TagLib::MPEG::File*>(file)) {
        if (f->hasID3v2Tag()) addId3v2(out, f->ID3v2Tag(), exact);
        if (f->hasAPETag()) addApe(out, f->APETag());
        if (f->hasID3v1Tag()) addId3v1(out, f->ID3v1Tag());
    } else if (auto* f = dynamic_cast<TagLib::FLAC::File*>(file)) {
        if (f->hasXiphComment()) addXiph(out, f->xiphComment());
        if (f->hasID3v2Tag()) addId3v2(out, f->ID3v2Tag(), exact);
        for (const auto* picture : f->pictureList())
            out.emplace("flac picture", std::to_string(picture->data().checksum()));
    } else if (auto* x = dynamic_cast<TagLib::Ogg::XiphComment*>(file->tag())) {
        addXiph(out, x);
    } else if (auto* f = dynamic_cast<TagLib::MP4::File*>(file)) {
        if (!f->tag()) return out;
        for (const auto& [name, item] : f->tag()->itemMap()) {
            std::string d =
                std::to_string(item.atomDataType()) + " " + joined(item.toStringList()) + " " +
                std::to_string(item.toInt()) + " " + std::to_string(item.toIntPair().first) + "/" +
                std::to_string(item.toIntPair().second) + " " + std::to_string(item.toBool());
            for (const auto& art : item.toCoverArtList())
                d += " art " + std::to_string(art.format()) + " " +
                     std::to_string(art.data().checksum());
            for (const auto& bytes : item.toByteVectorList())
                d += " bytes " + hex(bytes);
            out.emplace("mp4 " + str(name), d);
        }
    } else if (auto* f = dynamic_cast<TagLib::RIFF::WAV::File*>(file)) {
        if (f->hasID3v2Tag()) addId3v2(out, f->ID3v2Tag(), exact);
        if (f->hasInfoTag())
            for (const auto& [id, value] : f->InfoTag()->fieldListMap())
                out.emplace("info " + std::string(id.data(), id.size()), str(value));
    } else if (auto* f = dynamic_cast<TagLib::RIFF::AIFF::File*>(file)) {
        if (f->hasID3v2Tag()) addId3v2(out, f->tag(), exact);
    } else if (auto* f = dynamic_cast<TagLib::APE::File*>(file)) {
        if (f->hasAPETag()) addApe(out, f->APETag());
        if (f->hasID3v1Tag()) addId3v1(out, f->ID3v1Tag());
    } else if (auto* f = dynamic_cast<TagLib::ASF::File*>(file)) {
        out.emplace("asf TITLE", str(f->tag()->title()));
        out.emplace("asf rest", str(f->tag()->artist()) + "|" + str(f->tag()->copyright()) + "|" +
                                    str(f->tag()->comment()) + "|" + str(f->tag()->rating()));
        for (const auto& [name, attributes] : f->tag()->attributeListMap())
            for (const auto& a : attributes)
                out.emplace("asf " + str(name), str(a.toString()) + hex(a.toByteVector()));
    } else {
        const auto properties = file->properties();
        for (const auto& [key, values] : properties)
            out.emplace("properties " + str(key), joined(values));
        for (const auto& id : properties.unsupportedData())
            out.emplace("unsupported " + str(id), "");
    }
    return out;
}

// The entries that hold a title, in every kind of tag.
inline bool isTitle(const std::string& name) {
    static const std::vector<std::string> titles = {
        "id3v2 TIT2",  "xiph TITLE", "mp4 \xC2\xA9nam", "ape TITLE",
        "id3v1 TITLE", "info INAM",  "asf TITLE",       "properties TITLE"};
    return std::find(titles.begin(), titles.end(), name) != titles.end();
}

inline Entries withoutTitles(Entries entries) {
    std::erase_if(entries, [](const auto& e) { return isTitle(e.first); });
    return entries;
}

} // namespace trovan::rawtags
