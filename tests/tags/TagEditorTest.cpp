// SPDX-License-Identifier: GPL-3.0-or-later
// Tag and picture writes on real files of every writable format, and the ways a write
// may not happen: each must leave the file exactly as it was.

#include "tags/TagEditor.h"
#include "TagFiles.h"
#include "library/LibraryStore.h"
#include "media/TagLibFile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;
namespace fx = trovan::fixtures;
using namespace trovan;

using fixtures::slurp;
using tagfiles::copyOf;
using tagfiles::workFiles;

namespace {
PropertyMap propertiesOf(const fs::path& file) {
    return TagEditor::properties({file.string()}).front();
}
} // namespace

// Every writable format, through the tag editor down to TagLib: the scanner's cached
// reading agrees with the plain one, pictures are read by their bytes whatever their
// MIME type says, and a write keeps the file's mode and attributes, the tags it was not
// asked to change, and a stamp the next scan will recognise.
TEST(TagEditor, WritesTagsAndPicturesIntoEveryWritableFormat) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    TagEditor editor(nullptr);
    // Three pictures; the first is stored without a MIME type.
    const std::vector<fx::Cover> covers = {
        {fx::ImageKind::png, 8, 8, "white", std::string(""), 3, ""},
        {fx::ImageKind::png, 8, 8, "blue", std::nullopt, 4, "contraportada"},
        {fx::ImageKind::jpeg, 12, 12, "green", std::nullopt, 0, "otra"}};
    fx::Cover green;
    green.kind = fx::ImageKind::png;
    green.color = "green";
    const auto png = fx::image(green);
    const std::string lyrics(100'000, 'l'); // a tag well over one block of the read cache
    for (auto format : fx::taggableFormats()) {
        SCOPED_TRACE(fx::name(format));
        fx::Tone tone;
        tone.format = format;
        tone.tags = {{"TITLE", {"Viejo"}},
                     {"ARTIST", {"Alguien"}},
                     {"ALBUM", {"Álbum 日本"}},
                     {"COMMENT", {"borrar"}},
                     {"LYRICS", {lyrics}}};
        tone.covers = covers;
        const fs::path file =
            fx::copyTo(fx::cached("rich-" + fx::name(format) + "." + fx::extension(format), tone),
                       dir.path(), fx::name(format) + "." + fx::extension(format));
        {
            auto cached = TagLibFile::openForReading(file.string());
            auto plain = TagLibFile::open(file.string());
            ASSERT_TRUE(cached && plain);
            EXPECT_EQ(cached->value("LYRICS"), lyrics);
            EXPECT_EQ(cached->properties(), plain->properties());
            EXPECT_EQ(cached->audioProperties(), plain->audioProperties());
            EXPECT_EQ(cached->picture(), (Picture{fx::image(covers[0]), "image/jpeg"}));
        }
        fs::permissions(file,
                        fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
        const bool xattrs = ::setxattr(file.c_str(), "user.trovan", "1", 1, 0) == 0;

        TagPatch patch;
        patch.changes = {
            {"ARTIST", {"Uno", "Dos"}}, {"TITLE", {"Línea 1\nLínea 2"}}, {"MOOD", {"Alegre"}}};
        patch.remove = {"COMMENT"};
        auto result = editor.apply(patch, {file.string()});
        ASSERT_TRUE(result.failed.empty());
        ASSERT_EQ(result.updated.size(), 1u);
        EXPECT_EQ(result.updated[0].title, "Línea 1\nLínea 2");
        struct stat st {};
        ASSERT_EQ(::stat(file.c_str(), &st), 0);
        // The stored stamp is the new file's, so the next scan sees nothing to do.
        EXPECT_EQ(result.updated[0].size, st.st_size);
        EXPECT_DOUBLE_EQ(result.updated[0].mtime, FileStamp::seconds(st.st_mtim));
        EXPECT_EQ(st.st_mode & 0777, 0640u);
        if (xattrs) {
            char value[4] = {};
            EXPECT_EQ(::getxattr(file.c_str(), "user.trovan", value, sizeof value), 1);
        }
        auto props = propertiesOf(file);
        EXPECT_EQ(props["ARTIST"], (std::vector<std::string>{"Uno", "Dos"}));
        EXPECT_EQ(props["TITLE"], std::vector<std::string>{"Línea 1\nLínea 2"});
        EXPECT_EQ(props["MOOD"], std::vector<std::string>{"Alegre"});
        EXPECT_EQ(props["ALBUM"], std::vector<std::string>{"Álbum 日本"});
        EXPECT_FALSE(props.count("COMMENT"));
        EXPECT_EQ(props["LYRICS"], std::vector<std::string>{lyrics});

        result = editor.setPicture(Picture{png, "image/png"}, {file.string()});
        ASSERT_TRUE(result.failed.empty());
        auto pictures = fx::storedPictures(file);
        ASSERT_EQ(pictures.size(), 1u);
        EXPECT_EQ(pictures[0].data, png);
        EXPECT_EQ(pictures[0].mimeType, "image/png");
        EXPECT_TRUE(pictures[0].pictureType == 3 || pictures[0].pictureType == -1);
        if (format == fx::Format::mp3) {
            // ID3v2.4, and no ID3v1 or APE tag appears on saving.
            const auto tags = fx::mpegTags(file);
            EXPECT_EQ(tags.id3v2Version, 4);
            EXPECT_FALSE(tags.id3v1 || tags.ape);
        }
        result = editor.setPicture(std::nullopt, {file.string()});
        ASSERT_TRUE(result.failed.empty());
        EXPECT_TRUE(fx::storedPictures(file).empty());
        EXPECT_EQ(propertiesOf(file)["ARTIST"], (std::vector<std::string>{"Uno", "Dos"}));
        EXPECT_TRUE(fx::decodes(file));

        // Empty values, as the tag document gives them ("ARTIST: " lines), are no values.
        patch = {};
        patch.changes = {{"ARTIST", {"Uno", ""}}, {"GENRE", {""}}};
        result = editor.apply(patch, {file.string()});
        EXPECT_TRUE(result.failed.empty());
        props = propertiesOf(file);
        EXPECT_EQ(props["ARTIST"], std::vector<std::string>{"Uno"});
        EXPECT_FALSE(props.count("GENRE"));
    }
    EXPECT_TRUE(workFiles(dir.path()).empty());
}

// One file among five that cannot be written is counted and left as it was; the other
// four are written and stored. So are a file that vanished, a picture too large for a
// FLAC block and one above 32 MiB.
TEST(TagEditor, FilesThatCannotBeWrittenAreCountedAndLeftByteIdentical) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    auto store = std::make_shared<LibraryStore>(dir / "library.sqlite");
    TagEditor editor(store);
    const fs::path music = dir.subdir("music");
    std::vector<std::string> five;
    for (int i = 0; i < 4; ++i)
        five.push_back(
            copyOf(i % 2 ? fx::Format::mp3 : fx::Format::flac, music, "t" + std::to_string(i))
                .string());
    const auto garbage = fx::writeBroken(music, "roto.flac", fx::Broken::garbage).string();
    five.insert(five.begin() + 2, garbage);
    const std::string garbageBefore = slurp(garbage);
    TagPatch patch;
    patch.changes["TITLE"] = {"Nuevo"};
    auto result = editor.apply(patch, five);
    EXPECT_EQ(result.failed, std::vector<std::string>{garbage});
    EXPECT_EQ(result.updated.size(), 4u);
    EXPECT_EQ(slurp(garbage), garbageBefore);
    int stored = 0;
    for (const auto& track : store->loadAll()) {
        EXPECT_NE(track.path, garbage);
        EXPECT_EQ(track.title, "Nuevo");
        ++stored;
    }
    EXPECT_EQ(stored, 4);
    EXPECT_EQ(editor.apply(patch, {(music / "no-existe.mp3").string()}).failed.size(), 1u);
    // A key the format cannot hold (Xiph names exclude "=") fails the write, not silently.
    TagPatch unheld;
    unheld.changes["CLAVE=MALA"] = {"x"};
    const std::string beforeUnheld = slurp(five[0]);
    EXPECT_EQ(editor.apply(unheld, {five[0]}).failed, std::vector<std::string>{five[0]});
    EXPECT_EQ(slurp(five[0]), beforeUnheld);

    const std::string flac = five[0];
    const std::string flacBefore = slurp(flac);
    std::vector<std::uint8_t> huge(SafeWrite::flacBlockLimit, 0x55);
    EXPECT_EQ(editor.setPicture(Picture{huge, "image/jpeg"}, {flac}).failed.size(), 1u);
    const std::string mp3 = five[1], mp3Before = slurp(mp3);
    const Picture tooLarge{std::vector<uint8_t>(Picture::maxBytes + 1, 0), "image/png"};
    EXPECT_EQ(editor.setPicture(tooLarge, {mp3}).failed, std::vector<std::string>{mp3});
    EXPECT_EQ(slurp(flac), flacBefore);
    EXPECT_TRUE(slurp(mp3) == mp3Before);
    EXPECT_TRUE(workFiles(music).empty());
}

// Files are written two at a time; names that lead to one file must never be in hand
// together, or the second writer finds the file changed under it.
TEST(TagEditor, ABatchNamingOneFileSeveralWaysWritesItWithoutRacingItself) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    const fs::path music = dir.subdir("music");
    std::vector<std::string> files;
    for (int i = 0; i < 4; ++i)
        files.push_back(copyOf(fx::Format::flac, music, "t" + std::to_string(i)).string());
    fs::create_hard_link(files[0], music / "enlace-duro.flac");
    fs::create_symlink(files[1], music / "enlace.flac");
    // Side by side, so that without care both names would be taken up at once.
    const std::vector<std::string> paths = {files[0], (music / "enlace-duro.flac").string(),
                                            files[1], (music / "enlace.flac").string(),
                                            files[2], files[2],
                                            files[3]};
    TagEditor editor(nullptr);
    for (const char* title : {"Uno", "Dos"}) {
        TagPatch patch;
        patch.changes["TITLE"] = {title};
        auto result = editor.apply(patch, paths);
        EXPECT_TRUE(result.failed.empty()) << result.failed.front();
        ASSERT_EQ(result.updated.size(), paths.size());
        for (std::size_t i = 0; i < paths.size(); ++i) {
            EXPECT_EQ(result.updated[i].path, paths[i]);
            EXPECT_EQ(propertiesOf(paths[i])["TITLE"], std::vector<std::string>{title});
        }
    }
    EXPECT_TRUE(fs::is_symlink(music / "enlace.flac"));
    EXPECT_EQ(fs::hard_link_count(files[0]), 2u);
    EXPECT_TRUE(workFiles(music).empty());
}

TEST(TagEditor, NearlyFullFileSystemRefusesTheWriteAndKeepsTheOriginal) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    const fs::path mount = dir.subdir("lleno");
    if (::mount("tmpfs", mount.c_str(), "tmpfs", 0, "size=6m") != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs here (needs root)";
    struct Unmount {
        fs::path path;
        ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
    } unmount{mount};
    fx::Tone tone = tagfiles::tagged(fx::Format::wav);
    tone.seconds = 3; // about half a megabyte
    const fs::path file = fx::write(mount, "casi.wav", tone);
    // Fill the rest but for less than the copy and its margin need.
    {
        std::ofstream filler(mount / "relleno", std::ios::binary);
        std::string block(64 * 1024, 'x');
        for (int i = 0; i < 40; ++i)
            filler << block;
    }
    const std::string before = slurp(file);
    TagEditor editor(nullptr);
    TagPatch patch;
    patch.changes["TITLE"] = {"No cabe"};
    EXPECT_EQ(editor.apply(patch, {file.string()}).failed.size(), 1u);
    EXPECT_EQ(slurp(file), before);
    EXPECT_TRUE(workFiles(mount).empty());
}
