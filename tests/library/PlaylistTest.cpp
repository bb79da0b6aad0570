// SPDX-License-Identifier: GPL-3.0-or-later
// Lists as other programs write them, byte for byte, read against real files in a
// temporary folder; and lists we write, read back after the folder moved.

#include "library/Playlist.h"
#include "library/QueueFile.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace trovan;
namespace fs = std::filesystem;

namespace {

bool isFile(const std::string& path) {
    std::error_code ec;
    return fs::is_regular_file(path, ec);
}

void touch(const fs::path& path) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "x";
}

class PlaylistTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name :
             {"music/Alfa/01 Uno.flac", "music/Alfa/02 Dos.flac", "music/Beta/Canción ñ.mp3",
              "music/Beta/a b#c.ogg", "lists/local.flac"})
            touch(root() / name);
    }
    fs::path root() const { return dir.path(); }
    fs::path lists() const { return root() / "lists"; }
    std::string at(const char* name) const { return (root() / name).string(); }

    PlaylistImport read(const std::string& bytes, Playlist::Format format) const {
        return Playlist::read(bytes, format, lists(), isFile);
    }

    fixtures::TempDir dir;
};

TEST_F(PlaylistTest, ListsFromOtherProgramsFindTheirFiles) {
    const std::string uno = at("music/Alfa/01 Uno.flac"), dos = at("music/Alfa/02 Dos.flac"),
                      cancion = at("music/Beta/Canción ñ.mp3");
    using F = Playlist::Format;
    struct Case {
        const char* what;
        F format;
        std::size_t missing, skipped;
        std::vector<std::string> found;
        std::string bytes;
    };
    const Case cases[] = {
        Case("m3u with #EXTINF and absolute paths", F::m3u, 1, 0, {uno},
             "#EXTM3U\n#EXTINF:12,Alfa - Uno\n" + uno + "\n#EXTINF:-1,Nada\n/no/such.flac\n"),
        Case("m3u8 with a BOM, CRLF, .. and .", F::m3u, 0, 0, {uno, at("lists/local.flac")},
             "\xEF\xBB\xBF#EXTM3U\r\n\r\n./../music/./Alfa/../Alfa/01 Uno.flac\r\n"
             "  local.flac  \r\n"),
        Case("Latin-1 bytes", F::m3u, 0, 0, {cancion}, "../music/Beta/Canci\xF3n \xF1.mp3\n"),
        Case("file:// URLs; other URLs and lists are never followed", F::m3u, 0, 3, {cancion},
             "file://" + root().string() +
                 "/music/Beta/Canci%C3%B3n%20%C3%B1.mp3\nfile://otra-maquina/x.flac\n"
                 "http://radio/stream.mp3\n../lists/self.M3U\n"),
        Case("Windows separators and drive letters", F::m3u, 0, 0,
             {uno, dos, at("music/Beta/a b#c.ogg")},
             "..\\music\\Alfa\\01 Uno.flac\nD:\\Users\\Ana\\music\\Alfa\\02 Dos.flac\n"
             "file:///C:/music/Beta/a%20b%23c.ogg\n"),
        Case("PLS in the order of its numbers, any case, CRLF", F::pls, 0, 1, {uno, dos},
             "[playlist]\r\nFile2=../music/Alfa/02 Dos.flac\r\nTitle2=Dos\r\nfile1=" + uno +
                 "\r\nFile3=http://x/y\r\nFileX=nope\r\nFile4=\r\nNumberOfEntries=3\r\n"),
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto got = read(c.bytes, c.format);
        EXPECT_TRUE(got.error.empty()) << got.error;
        EXPECT_EQ(got.paths, c.found);
        EXPECT_EQ(got.missing, c.missing);
        EXPECT_EQ(got.skipped, c.skipped);
    }
    // Not text at all.
    EXPECT_FALSE(read(std::string("\x89PNG\r\n\x1A\n\0\0\0", 11), F::m3u).error.empty());
}

TEST_F(PlaylistTest, ExportedListsKeepWorkingWhenTheFolderMovesWithTheMusic) {
    const std::vector<PlaylistEntry> entries = {
        {at("music/Alfa/01 Uno.flac"), "Alfa", "Uno", 61500},
        {at("music/Beta/a b#c.ogg"), "", "Línea\nrota", 0},
        {root().string() + "/music/Beta/con\nsalto.flac", "x", "y", 1000}, // not writable
    };
    const std::string text = Playlist::write(entries, root() / "music");
    EXPECT_EQ(text, "#EXTM3U\n#EXTINF:62,Alfa - Uno\nAlfa/01 Uno.flac\n"
                    "#EXTINF:-1,Línea rota\nBeta/a b#c.ogg\n");
    const std::string absolute = Playlist::write(entries, std::nullopt);
    // Appended, not "\n" + std::string: GCC 12's -Wrestrict misreads that in Release.
    EXPECT_NE(absolute.find(std::string("\n").append(at("music/Alfa/01 Uno.flac")) + "\n"),
              std::string::npos);

    // A name starting with '#' is written so it does not read as a comment.
    touch(root() / "music/#1.flac");
    const std::string hash = Playlist::write({{at("music/#1.flac"), "", "h", 0}}, root() / "music");
    EXPECT_NE(hash.find("\n./#1.flac\n"), std::string::npos);

    std::ofstream(root() / "music/lista.m3u8") << text;
    fs::rename(root() / "music", root() / "moved");
    const auto back = Playlist::read(text, Playlist::Format::m3u, root() / "moved", isFile);
    EXPECT_EQ(back.paths,
              (std::vector<std::string>{at("moved/Alfa/01 Uno.flac"), at("moved/Beta/a b#c.ogg")}));
    EXPECT_EQ(back.missing, 0u);
}

TEST(PlaylistNameTest, NamesStayInsideTheListsFolder) {
    for (const char* good : {"Mi lista", "Canciones de ñandú", "2024.verano", "a-b_c (1)"})
        EXPECT_TRUE(Playlist::isValidName(good)) << good;
    for (const char* bad : {"", "../x", "a/b", ".oculta", "..", "a\\b", "tab\there", "\xFF\xFE"})
        EXPECT_FALSE(Playlist::isValidName(bad)) << bad;
    EXPECT_FALSE(Playlist::isValidName(std::string(201, 'a')));
}

// The kept queue reads back as written, non-UTF-8 names and a shuffled order included;
// damage costs only what it touched, and a newer file is recognised as such.
TEST(QueueFileTest, RoundTripDamageAndNewerVersions) {
    SavedQueue q;
    q.paths = {"/m/a/1.flac", "/m/a/2.flac", "/m/b/\xE9t\xE9.mp3", "suelto.ogg"};
    q.order = {2, 0, 3, 1};
    q.position = 1;
    q.seconds = 12.5;
    const std::string bytes = QueueFile::encode(q);
    auto back = QueueFile::decode(bytes);
    EXPECT_EQ(back.problem, QueueFile::Problem::none);
    EXPECT_EQ(back.queue.paths, q.paths);
    EXPECT_EQ(back.queue.order, q.order);
    EXPECT_EQ(back.queue.position, q.position);
    EXPECT_EQ(back.queue.seconds, q.seconds);

    // Entry 1 (2.flac) unreadable: dropped, the order renumbered around it.
    auto damaged = QueueFile::decode(
        R"({"version":1,"folders":["/m/a/","/m/b/"],"entries":[[0,"1.flac"],[7,"2.flac"],[1,"x"]],)"
        R"("order":[2,0,1],"position":2,"seconds":"mucho"})");
    EXPECT_EQ(damaged.problem, QueueFile::Problem::corrupt);
    EXPECT_EQ(damaged.queue.paths, (std::vector<std::string>{"/m/a/1.flac", "/m/b/x"}));
    EXPECT_EQ(damaged.queue.order, (std::vector<int>{1, 0}));
    EXPECT_EQ(damaged.queue.seconds, 0);

    for (const char* bad : {"", "{", "[]", "{\"entries\":[]}", "\x01\x02", "{\"version\":\"1\"}"})
        EXPECT_EQ(QueueFile::decode(bad).problem, QueueFile::Problem::corrupt) << bad;
    const auto newer = QueueFile::decode(R"({"version":2,"entries":"otra cosa"})");
    EXPECT_EQ(newer.problem, QueueFile::Problem::newer);
    EXPECT_TRUE(newer.queue.paths.empty());
}

} // namespace
