// SPDX-License-Identifier: GPL-3.0-or-later
// Files tagged the way common taggers leave them (iTunes comments with descriptions,
// described lyrics and links, MusicBrainz TXXX frames, frames TagLib does not know, Vorbis
// fields with spaces and colons, MP4 freeform atoms), built here with TagLib's own
// per-format API. Changing only the title through the tag document or the form must leave
// every other frame, field and item as it was, read back by that same per-format API.

#include "RawTags.h"
#include "TagFiles.h"
#include "state/TagForm.h"
#include "tags/TagDocument.h"
#include "tags/TagEditor.h"

#include <gtest/gtest.h>

#include <taglib/oggfile.h>
#include <taglib/unknownframe.h>
#include <taglib/vorbisfile.h>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;

namespace {

using TagLib::String;

void addComment(TagLib::ID3v2::Tag* tag, String::Type encoding, const char* language,
                const char* description, const String& text) {
    auto* f = new TagLib::ID3v2::CommentsFrame(encoding);
    f->setLanguage(language);
    f->setDescription(description);
    f->setText(text);
    tag->addFrame(f);
}

void tagLikeATagger(const fs::path& file, fx::Format format) {
    if (format == fx::Format::mp3) {
        TagLib::MPEG::File f(file.c_str());
        auto* tag = f.ID3v2Tag(true);
        addComment(tag, String::UTF16, "eng", "iTunNORM", " 00000A2B 00000B3C 0000589F");
        addComment(tag, String::UTF16, "eng", "iTunSMPB", " 00000000 00000210 000007E4 ");
        addComment(tag, String::Latin1, "deu", "", "Zweiter Kommentar");
        auto* lyrics = new TagLib::ID3v2::UnsynchronizedLyricsFrame(String::UTF8);
        lyrics->setLanguage("spa");
        lyrics->setDescription("Letra");
        lyrics->setText(String("Primera línea\r\nSegunda", String::UTF8));
        tag->addFrame(lyrics);
        auto* link = new TagLib::ID3v2::UserUrlLinkFrame(String::Latin1);
        link->setDescription("Tienda");
        link->setUrl("https://example.org/disco");
        tag->addFrame(link);
        tag->addFrame(new TagLib::ID3v2::UserTextIdentificationFrame(
            "MusicBrainz Album Id", String("8f3b1c52-1a9e-4c2b-9d3e-5b0a6f7e8d9c"),
            String::Latin1));
        tag->addFrame(new TagLib::ID3v2::UserTextIdentificationFrame(
            "CATALOGNUMBER", TagLib::StringList(String("ABC-1")).append("ABC-2"), String::UTF16));
        // A value the document cannot show: kept without being shown.
        tag->addFrame(new TagLib::ID3v2::UserTextIdentificationFrame(
            "Control", String(std::string("a\x01z"), String::UTF8), String::UTF8));
        tag->addFrame(
            new TagLib::ID3v2::UnknownFrame(TagLib::ByteVector("XTST\0\0\0\4\0\0raro", 14)));
        ASSERT_TRUE(f.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripNone, TagLib::ID3v2::v4));
    } else if (format == fx::Format::aac) {
        TagLib::MP4::File f(file.c_str());
        auto* tag = f.tag();
        tag->setItem("----:com.apple.iTunes:iTunNORM", TagLib::MP4::Item(String(" 00000A2B 0000")));
        tag->setItem("----:com.apple.iTunes:MusicBrainz Track Id",
                     TagLib::MP4::Item(String("2c1d3e4f-0000-4000-8000-000000000001")));
        tag->setItem("----:org.example:raro",
                     TagLib::MP4::Item(TagLib::StringList("x").append("y")));
        tag->setItem("tmpo", TagLib::MP4::Item(120));
        tag->setItem("trkn", TagLib::MP4::Item(3, 12));
        ASSERT_TRUE(f.save());
    } else {
        TagLib::FileRef ref(file.c_str());
        TagLib::Ogg::XiphComment* xiph =
            format == fx::Format::flac
                ? dynamic_cast<TagLib::FLAC::File*>(ref.file())->xiphComment(true)
                : dynamic_cast<TagLib::Ogg::XiphComment*>(ref.file()->tag());
        ASSERT_NE(xiph, nullptr);
        xiph->addField("MY KEY", "uno", false);
        xiph->addField("MY KEY", "dos", false);
        xiph->addField("QUODLIBET::MOOD", "tranquilo", false);
        xiph->addField("MUSICBRAINZ_ALBUMID", "8f3b1c52", false);
        xiph->addField("REPLAYGAIN_TRACK_GAIN", " -6.20 dB", false);
        ASSERT_TRUE(ref.save());
    }
}

fs::path taggerFile(fx::Format format, const fs::path& dir, const std::string& name) {
    const fs::path file = tagfiles::copyOf(format, dir, name);
    tagLikeATagger(file, format);
    return file;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from << " not in\n" << text;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

TagPatch titleOnly(const std::string& title) {
    TagPatch p;
    p.changes["TITLE"] = {title};
    return p;
}

// The title edited through the document: the patch holds the title and nothing else.
TagPatch throughDocument(const std::vector<std::string>& paths, const std::string& oldLine) {
    const auto props = TagEditor::properties(paths);
    const std::string doc = TagDocument::render(props);
    const auto parsed = TagDocument::parse(replaced(doc, oldLine, "TITLE: Nuevo"), props);
    EXPECT_TRUE(parsed.problems.empty()) << parsed.problems.front();
    EXPECT_EQ(parsed.patch, titleOnly("Nuevo")) << doc;
    return parsed.patch;
}

TagPatch throughForm(const std::vector<std::string>& paths) {
    TagForm form(paths, TagEditor::properties(paths));
    for (auto& field : form.fields)
        if (field.key == "TITLE") field.input = TextInput("Nuevo");
    EXPECT_EQ(form.patch(), titleOnly("Nuevo"));
    return form.patch();
}

} // namespace

// The title changed through the document or the form, alone or in a batch with a plain
// file whose keys differ (shown as <varios>): every other frame of both stays as it was.
TEST(TaggerFiles, ChangingTheTitleLeavesEveryOtherFrameAsItWas) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    TagEditor editor(nullptr);
    for (auto format : {fx::Format::mp3, fx::Format::flac, fx::Format::vorbis, fx::Format::aac}) {
        for (const char* how : {"document", "form", "batch"}) {
            const bool batch = how == std::string("batch");
            if (batch && format != fx::Format::mp3 && format != fx::Format::flac) continue;
            const std::string name = fx::name(format) + "-" + how;
            SCOPED_TRACE(name);
            const fs::path file = taggerFile(format, dir.path(), name);
            std::vector<std::string> paths = {file.string()};
            if (batch) {
                paths.push_back(tagfiles::copyOf(format, dir.path(), name + "-b").string());
                const std::string doc = TagDocument::render(TagEditor::properties(paths));
                const char* mixed = format == fx::Format::mp3 ? "\nCOMMENT:ITUNNORM: <varios>\n"
                                                              : "\nMY KEY: <varios>\n";
                EXPECT_NE(doc.find(mixed), std::string::npos) << doc;
            }
            std::vector<rawtags::Entries> before;
            for (const auto& p : paths)
                before.push_back(rawtags::read(p, true));
            const TagPatch patch = how == std::string("form")
                                       ? throughForm(paths)
                                       : throughDocument(paths, "TITLE: Viejo");
            ASSERT_TRUE(editor.apply(patch, paths).failed.empty());
            for (std::size_t i = 0; i < paths.size(); ++i) {
                const auto after = rawtags::read(paths[i], true);
                EXPECT_EQ(rawtags::withoutTitles(after), rawtags::withoutTitles(before[i]));
                EXPECT_NE(after, before[i]);
                EXPECT_EQ(TagEditor::properties({paths[i]})[0]["TITLE"],
                          std::vector<std::string>{"Nuevo"});
            }
        }
    }
    // What the document cannot show is named and kept; blanks at a value's ends are escaped.
    const std::string one = TagDocument::render(
        TagEditor::properties({taggerFile(fx::Format::mp3, dir.path(), "solo").string()}));
    EXPECT_NE(one.find("\n# Se conservan sin mostrar (este documento no las puede "
                       "escribir tal cual): CONTROL\n"),
              std::string::npos)
        << one;
    EXPECT_NE(one.find("\nCOMMENT:ITUNSMPB: \\ 00000000 00000210 000007E4\\ \n"),
              std::string::npos);
}

// Editing a described key itself changes that frame's text only: its description's case,
// language and encoding stay, and so do the frames that share its key.
TEST(TaggerFiles, EditedFramesKeepDescriptionLanguageAndEncoding) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    TagEditor editor(nullptr);
    const auto file = taggerFile(fx::Format::mp3, dir.path(), "mp3");
    TagPatch patch;
    patch.changes["COMMENT:ITUNNORM"] = {" 1111", " 2222"}; // a second frame, added
    patch.changes["COMMENT"] = {"borrar", "Anderer"};       // the second of two frames
    patch.changes["URL:TIENDA"] = {"https://example.org/otro"};
    patch.changes["CATALOGNUMBER"] = {"ABC-1"};
    ASSERT_TRUE(editor.apply(patch, {file.string()}).failed.empty());
    const auto raw = rawtags::read(file);
    auto has = [&](const std::string& name, const std::string& content) {
        auto [a, b] = raw.equal_range(name);
        for (auto it = a; it != b; ++it)
            if (it->second == content) return true;
        for (auto it = a; it != b; ++it)
            ADD_FAILURE() << "has " << it->second;
        ADD_FAILURE() << name << " lacks " << content;
        return false;
    };
    has("id3v2 COMM", "enc 1 lang 656e67 desc iTunNORM  1111");
    has("id3v2 COMM", "enc 1 lang 656e67 desc iTunNORM  2222");
    has("id3v2 COMM", "enc 1 lang 656e67 desc iTunSMPB  00000000 00000210 000007E4 ");
    has("id3v2 COMM", "enc 0 lang 646575 desc  Anderer");
    has("id3v2 WXXX", "enc 0 desc Tienda https://example.org/otro");
    has("id3v2 TXXX", "enc 1 CATALOGNUMBER\x1f"
                      "ABC-1\x1f");
    has("id3v2 USLT", "enc 3 lang 737061 desc Letra Primera línea\r\nSegunda");
}
