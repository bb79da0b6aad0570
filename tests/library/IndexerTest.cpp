#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace trovan;

namespace trovan {
void PrintTo(const IndexSummary& s, std::ostream* os) {
    *os << "{found " << s.fileCount << ", read " << s.readCount << ", removed " << s.removedCount
        << "}";
}
} // namespace trovan

namespace fx = trovan::fixtures;
namespace fs = std::filesystem;

namespace {

// Copies a short real file, generated once, to dir/rel.
fs::path put(const fs::path& dir, const std::string& rel) {
    static const auto mp3 = fx::cached("small.mp3", {.format = fx::Format::mp3,
                                                     .seconds = 0.2,
                                                     .channels = 1,
                                                     .tags = {{"TITLE", {"Pequeña"}}}});
    fs::create_directories((dir / rel).parent_path());
    return fx::copyTo(mp3, (dir / rel).parent_path(), (dir / rel).filename().string());
}

template <class Range, class Key> std::set<std::string> pathsOf(const Range& range, Key key) {
    std::set<std::string> out;
    for (const auto& item : range)
        out.insert(key(item));
    return out;
}

std::set<std::string> paths(LibraryStore& store) {
    return pathsOf(store.loadAll(), [](const Track& t) { return t.path; });
}

void setMtime(const fs::path& p, time_t seconds, long nanos) {
    timespec times[2] = {{seconds, nanos}, {seconds, nanos}};
    ASSERT_EQ(utimensat(AT_FDCWD, p.c_str(), times, 0), 0);
}

} // namespace

TEST(Indexer, ScanFindsOnlyVisibleRegularAudioFiles) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto music = dir.subdir("music");
    auto root = music.string();
    put(music, "a/1.flac");
    put(music, "a/B.FLAC");
    put(music, "a/sub/deep/2.mp3");
    put(music, "a/.x.mp3");           // hidden file
    put(music, ".git/3.mp3");         // hidden folder
    put(music, "Álbum/\xff\xfe.mp3"); // not UTF-8
    { std::ofstream(music / "notes.txt") << "x"; }
    { std::ofstream(music / "mp3") << "x"; }
    fs::create_symlink(music / "a" / "1.flac", music / "link.flac");
    fs::create_directory_symlink(music / "a", music / "linkdir");
    ASSERT_EQ(mkfifo((music / "pipe.mp3").c_str(), 0644), 0);
    fs::create_directories(music / "empty");

    auto result = Indexer::scan({root});
    EXPECT_TRUE(result.missingRoots.empty());
    EXPECT_EQ(pathsOf(result.found, [](const auto& entry) { return entry.first; }),
              (std::set<std::string>{root + "/a/1.flac", root + "/a/B.FLAC",
                                     root + "/a/sub/deep/2.mp3", root + "/Álbum/\xff\xfe.mp3"}));
    struct stat st {};
    ASSERT_EQ(stat((music / "a/1.flac").c_str(), &st), 0);
    EXPECT_EQ(result.found.at(root + "/a/1.flac"),
              (FileStamp{FileStamp::seconds(st.st_mtim), static_cast<int64_t>(st.st_size)}));

    // A root that is a link to a folder is walked; a file, a missing path are missing.
    fs::create_directory_symlink(music, dir / "rootlink");
    { std::ofstream(dir / "file") << "x"; }
    auto more = Indexer::scan(
        {(dir / "rootlink").string(), (dir / "file").string(), (dir / "nowhere").string()});
    EXPECT_EQ(more.found.size(), 4u);
    EXPECT_TRUE(more.found.contains((dir / "rootlink").string() + "/a/1.flac"));
    EXPECT_EQ(more.missingRoots,
              (std::vector<std::string>{(dir / "file").string(), (dir / "nowhere").string()}));

    EXPECT_TRUE(Indexer::scan({}).found.empty());
}

TEST(Indexer, RunKeepsTheStoreInStepWithTheDisk) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto music = dir.subdir("music");
    auto other = dir.subdir("other");
    const std::vector<std::string> roots = {music.string(), other.string()};
    for (auto rel : {"a/1.mp3", "a/2.mp3", "b/3.mp3"})
        put(music, rel);
    put(other, "x.mp3");
    LibraryStore store(dir / "data" / "library.sqlite");

    EXPECT_EQ(Indexer::run(roots, store, false), (IndexSummary{4, 4, 0}));
    auto tracks = store.loadAll();
    ASSERT_EQ(tracks.size(), 4u);
    EXPECT_EQ(tracks[0].title, "Pequeña");
    EXPECT_EQ(tracks[0].codec, "MP3");

    // Unchanged: nothing is reread.
    EXPECT_EQ(Indexer::run(roots, store, false), (IndexSummary{4, 0, 0}));

    // A touched file, and a file whose size changes under the same time, are reread.
    auto touched = music / "a/1.mp3";
    setMtime(touched, 1600000000, 123456789);
    auto grown = music / "a/2.mp3";
    struct stat st {};
    ASSERT_EQ(stat(grown.c_str(), &st), 0);
    { std::ofstream(grown, std::ios::app) << "tail"; }
    setMtime(grown, st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
    EXPECT_EQ(Indexer::run(roots, store, false), (IndexSummary{4, 2, 0}));
    EXPECT_EQ(store.stamps().at(touched.string()).mtime, 1600000000.123456789);

    // Force rereads all and still removes what is gone.
    fs::remove(music / "b/3.mp3");
    EXPECT_EQ(Indexer::run(roots, store, true), (IndexSummary{3, 3, 1}));

    // A missing root keeps its tracks; they count neither as found nor removed.
    fs::rename(music, dir / "moved");
    EXPECT_EQ(Indexer::run(roots, store, false), (IndexSummary{1, 0, 0}));
    EXPECT_EQ(paths(store).size(), 3u);
    fs::rename(dir / "moved", music);
    EXPECT_EQ(Indexer::run(roots, store, false), (IndexSummary{3, 0, 0}));

    // A root inside another reaches the same files; each counts once.
    EXPECT_EQ(Indexer::run({music.string(), (music / "a").string(), other.string()}, store, false),
              (IndexSummary{3, 0, 0}));

    // No roots at all: the library empties.
    EXPECT_EQ(Indexer::run({}, store, false), (IndexSummary{0, 0, 3}));
    EXPECT_TRUE(store.loadAll().empty());
}

TEST(Indexer, BrokenFilesAreCountedButNotStored) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto music = dir.subdir("music");
    put(music, "good.mp3");
    int broken = 0;
    for (std::string ext : {"flac", "mp3", "m4a", "wav", "aiff", "ogg", "opus", "caf", "aac"}) {
        fx::writeBroken(music, "zero." + ext, fx::Broken::zeroBytes);
        fx::writeBroken(music, "junk." + ext, fx::Broken::garbage);
        broken += 2;
    }
    LibraryStore store(dir / "library.sqlite");
    // A cached record of a file that now fails to read stays as it was.
    const Track old{.path = (music / "zero.flac").string(), .title = "antes"};
    store.apply({old}, {});

    EXPECT_EQ(Indexer::run({music.string()}, store, false), (IndexSummary{broken + 1, 1, 0}));
    EXPECT_EQ(paths(store), (std::set<std::string>{(music / "good.mp3").string(), old.path}));
}

TEST(Indexer, ReadReportsProgressEvery64FilesAndLosesNone) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    std::vector<std::string> missing;
    for (int i = 0; i < 1000; ++i)
        missing.push_back("/nonexistent/trovan/" + std::to_string(i) + ".mp3");
    std::mutex m;
    std::vector<int64_t> seen, expected;
    auto tracks = Indexer::read(missing, [&](int64_t done, int64_t total) {
        EXPECT_EQ(total, 1000);
        std::lock_guard lock(m);
        seen.push_back(done);
    });
    EXPECT_TRUE(tracks.empty());
    std::sort(seen.begin(), seen.end());
    for (int64_t n = 64; n < 1000; n += 64)
        expected.push_back(n);
    expected.push_back(1000);
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(Indexer::read({}, [&](int64_t, int64_t) { ADD_FAILURE() << "progress"; }).empty());
    EXPECT_GE(Indexer::activeCores(), 1);

    // Any number of workers, more than files too, reads every file once.
    fx::TempDir dir;
    std::vector<std::string> files;
    for (int i = 0; i < 10; ++i)
        files.push_back(put(dir.path(), std::to_string(i) + ".mp3").string());
    for (int workers : {1, 3, 16}) {
        auto read = Indexer::read(files, {}, workers);
        EXPECT_EQ(read.size(), files.size());
        EXPECT_EQ(pathsOf(read, [](const Track& t) { return t.path; }),
                  std::set<std::string>(files.begin(), files.end()))
            << workers;
    }
}

// A first or forced run reads while it walks; its progress still counts against the
// final total, at every 64 files and at the end, in order.
TEST(Indexer, ReadingWhileWalkingReportsProgressAgainstTheFinalTotal) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto music = dir.subdir("music");
    for (int i = 0; i < 130; ++i)
        put(music, "d" + std::to_string(i % 13) + "/sub/" + std::to_string(i) + ".mp3");
    LibraryStore store(dir / "library.sqlite");
    for (bool force : {false, true}) {
        SCOPED_TRACE(force);
        std::mutex m;
        std::vector<std::pair<int64_t, int64_t>> calls;
        auto summary = Indexer::run({music.string()}, store, force, [&](int64_t done, int64_t total) {
            std::lock_guard lock(m);
            calls.emplace_back(done, total);
        });
        EXPECT_EQ(summary, (IndexSummary{130, 130, 0}));
        EXPECT_EQ(calls, (std::vector<std::pair<int64_t, int64_t>>{{64, 130}, {128, 130}, {130, 130}}));
    }
    EXPECT_EQ(store.loadAll().size(), 130u);

    // Nested roots on an empty cache still count each file once.
    LibraryStore fresh(dir / "fresh.sqlite");
    EXPECT_EQ(Indexer::run({music.string(), (music / "d1").string()}, fresh, false),
              (IndexSummary{130, 130, 0}));
}
