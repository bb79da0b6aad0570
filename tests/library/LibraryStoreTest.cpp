// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/LibraryStore.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <fstream>

using namespace trovan;
namespace fx = trovan::fixtures;

namespace {

// Every field set, with values that stress the columns' types.
Track sample(std::string path, std::string title = "T") {
    Track t{.path = path, .mtime = 1700000000.123456789, .size = 5000000000LL, .title = title};
    std::tie(t.artist, t.albumArtist, t.album, t.genre, t.codec) =
        std::make_tuple("Ñandú", "ＡＢＣ", "Álbum", "Jazz", "FLAC");
    std::tie(t.year, t.trackNumber, t.discNumber, t.durationMs, t.sampleRate, t.bitrate,
             t.channels) = std::make_tuple(1999, 3, 2, 215000, 96000, 2400, 6);
    t.replayGain = {-6.25, 0.98, std::nullopt, 1.2};
    return t;
}

std::vector<Track> sorted(std::vector<Track> v) {
    std::sort(v.begin(), v.end(), [](const Track& a, const Track& b) { return a.path < b.path; });
    return v;
}

// Runs SQL on a database file behind the store's back.
int64_t execRaw(const std::filesystem::path& file, const std::string& sql) {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, "PRAGMA user_version", -1, &s, nullptr);
    sqlite3_step(s);
    int64_t version = sqlite3_column_int64(s, 0);
    sqlite3_finalize(s);
    sqlite3_close(db);
    return version;
}

} // namespace

TEST(LibraryStore, KeepsEveryFieldAcrossReopeningAndAppliesInOrder) {
    fx::TempDir dir;
    auto file = dir / "a" / "b" / "library.sqlite"; // folders are created
    // A tag may hold a NUL: it is kept whole.
    std::vector<Track> tracks = {sample("/a"), sample("/b", "日本語"), sample("/c"),
                                 sample("/n", std::string("antes\0después", 15)),
                                 Track{.path = "/m/empty.mp3", .mtime = -0.0}};
    {
        LibraryStore store(file);
        EXPECT_TRUE(store.loadAll().empty());
        store.apply(tracks, {});
    }
    LibraryStore store(file);
    EXPECT_EQ(sorted(store.loadAll()), sorted(tracks));
    EXPECT_EQ(store.stamps().at("/a"), (FileStamp{1700000000.123456789, 5000000000LL}));

    // The later of two records for one path wins; upserts come before deletions.
    store.apply({sample("/a", "first"), sample("/a", "second"), sample("/d")},
                {"/d", "/b", "/zz", "/m/empty.mp3", "/n"});
    const std::vector<Track> expected = {sample("/a", "second"), sample("/c")};
    EXPECT_EQ(sorted(store.loadAll()), expected);
    store.apply({}, {});
    EXPECT_EQ(sorted(store.loadAll()), expected);
}

// Other versions are rebuilt empty. A cache written before the loudness columns keeps every row,
// without gains and with a stamp no file has, so the next scan reads each file again.
TEST(LibraryStore, SchemaVersions) {
    fx::TempDir dir;
    auto v3 = dir / "v3.sqlite";
    LibraryStore(v3).apply({sample("/a")}, {});
    EXPECT_EQ(execRaw(v3, "PRAGMA user_version = 3"), 3);
    EXPECT_TRUE(LibraryStore(v3).loadAll().empty());
    EXPECT_EQ(execRaw(v3, "SELECT 1"), 2);

    auto v1 = dir / "v1.sqlite";
    execRaw(v1, "CREATE TABLE tracks(path TEXT PRIMARY KEY, mtime REAL NOT NULL, size INTEGER "
                "NOT NULL, title TEXT, artist TEXT, album_artist TEXT, album TEXT, genre TEXT, "
                "year INTEGER, track INTEGER, disc INTEGER, duration_ms INTEGER, codec TEXT, "
                "sample_rate INTEGER, bitrate INTEGER, channels INTEGER) WITHOUT ROWID;"
                "INSERT INTO tracks(path, mtime, size, title) VALUES('/a', 5, 7, 'Uno'), "
                "('/b', 6, 8, 'Dos'); PRAGMA user_version = 1;");
    LibraryStore store(v1);
    EXPECT_EQ(sorted(store.loadAll()),
              (std::vector<Track>{{.path = "/a", .mtime = -1, .size = 7, .title = "Uno"},
                                  {.path = "/b", .mtime = -1, .size = 8, .title = "Dos"}}));
    store.apply({sample("/a")}, {});
    EXPECT_EQ(execRaw(v1, "SELECT 1"), 2);
    EXPECT_EQ(sorted(LibraryStore(v1).loadAll()).front(), sample("/a"));
}

TEST(LibraryStore, OpenFailures) {
    fx::TempDir dir;
    auto junk = dir / "library.sqlite";
    std::ofstream(junk, std::ios::binary) << std::string(4096, 'x');
    EXPECT_THROW(LibraryStore{junk}, LibraryStoreError);
    EXPECT_EQ(std::filesystem::file_size(junk), 4096u); // the user's file is left as it was
    std::ofstream(dir / "plain") << "x";
    EXPECT_THROW(LibraryStore(dir / "plain" / "sub" / "library.sqlite"),
                 std::filesystem::filesystem_error);
    EXPECT_THROW(LibraryStore(dir.path()), LibraryStoreError); // a folder is not a file
}

// The cache file replaced under the running program: the store follows the file now at
// its path, a deleted one is made again, and one that is not a cache is refused and left
// as it was.
TEST(LibraryStore, FollowsTheFileAtItsPath) {
    fx::TempDir dir;
    auto file = dir / "library.sqlite";
    LibraryStore store(file);
    store.apply({sample("/a")}, {});

    {
        LibraryStore other(dir / "other.sqlite");
        other.apply({sample("/b")}, {});
        other.close();
    }
    std::filesystem::rename(dir / "other.sqlite", file);
    EXPECT_EQ(store.loadAll(), std::vector<Track>{sample("/b")});
    store.apply({sample("/c")}, {});
    EXPECT_EQ(LibraryStore(file).stamps().size(), 2u);

    std::filesystem::remove(file);
    EXPECT_TRUE(store.isEmpty());
    store.apply({sample("/d")}, {});
    EXPECT_EQ(LibraryStore(file).loadAll(), std::vector<Track>{sample("/d")});

    std::ofstream(dir / "junk", std::ios::binary) << std::string(4096, 'x');
    std::filesystem::rename(dir / "junk", file);
    EXPECT_THROW(store.apply({sample("/e")}, {}), std::runtime_error);
    EXPECT_THROW(store.loadAll(), std::runtime_error);
    EXPECT_EQ(std::filesystem::file_size(file), 4096u);
}

// A row that fails for any reason but its own size fails the whole batch: nothing of it
// is kept, the error is thrown, and the store goes on working.
TEST(LibraryStore, AFailedWriteRollsBackTheWholeBatch) {
    fx::TempDir dir;
    auto file = dir / "library.sqlite";
    LibraryStore store(file);
    store.apply({sample("/old")}, {});
    // An error inside SQLite while writing one particular row.
    execRaw(file, "CREATE TRIGGER boom BEFORE INSERT ON tracks WHEN NEW.path = '/bad' "
                  "BEGIN SELECT json('no es json'); END;");
    try {
        store.apply({sample("/a"), sample("/bad"), sample("/c")}, {"/old"});
        FAIL() << "the batch was written";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("no se pudo escribir en la base de datos (", 0), 0u)
            << e.what();
    }
    EXPECT_EQ(store.loadAll(), std::vector<Track>{sample("/old")});
    store.apply({sample("/a")}, {"/old"});
    EXPECT_EQ(store.loadAll(), std::vector<Track>{sample("/a")});
}
