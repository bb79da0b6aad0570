// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;

namespace {

using Calls = std::vector<std::pair<int64_t, int64_t>>;

// Copies a short real file, generated once, to dir/rel.
fs::path put(const fs::path& dir, const std::string& rel) {
    static const auto mp3 = fx::cached("small.mp3", {.format = fx::Format::mp3,
                                                     .seconds = 0.2,
                                                     .channels = 1,
                                                     .tags = {{"TITLE", {"Pequeña"}}}});
    fs::create_directories((dir / rel).parent_path());
    fs::copy_file(mp3, dir / rel);
    return dir / rel;
}

template <class Range> std::set<std::string> paths(const Range& tracks) {
    std::set<std::string> out;
    for (const Track& t : tracks)
        out.insert(t.path);
    return out;
}

void setMtime(const fs::path& p, time_t seconds, long nanos) {
    timespec times[2] = {{seconds, nanos}, {seconds, nanos}};
    ASSERT_EQ(utimensat(AT_FDCWD, p.c_str(), times, 0), 0);
}

} // namespace

TEST(Indexer, RunKeepsTheStoreInStepWithTheDisk) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto music = dir.subdir("music");
    auto other = dir.subdir("other");
    for (auto rel : {"a/1.mp3", "a/B.MP3", "b/deep/3.mp3", "Álbum/\xff\xfe.mp3", "a/.x.mp3",
                     ".git/4.mp3"}) // the last two are hidden
        put(music, rel);
    put(other, "x.mp3");
    std::ofstream(music / "notes.txt") << "x";
    std::ofstream(music / "mp3") << "x";
    fs::create_symlink(music / "a" / "1.mp3", music / "link.mp3");
    fs::create_directory_symlink(music / "a", music / "linkdir");
    ASSERT_EQ(mkfifo((music / "pipe.mp3").c_str(), 0644), 0);
    fs::create_directories(music / "empty");
    const std::vector<std::string> roots = {music.string(), other.string()};
    LibraryStore store(dir / "data" / "library.sqlite");

    // The first run reads while it walks, later ones walk first: both find the same files,
    // each once even under a root inside another.
    auto root = music.string();
    EXPECT_EQ(Indexer::run({root, (music / "a").string(), other.string()}, store, false),
              (IndexSummary{5, 5, 0}));
    EXPECT_EQ(paths(store.loadAll()),
              (std::set<std::string>{root + "/a/1.mp3", root + "/a/B.MP3", root + "/b/deep/3.mp3",
                                     root + "/Álbum/\xff\xfe.mp3", (other / "x.mp3").string()}));
    EXPECT_EQ(std::tie(store.loadAll()[0].title, store.loadAll()[0].codec),
              std::make_tuple("Pequeña", "MP3"));
    EXPECT_EQ(Indexer::run(roots, store, false), (IndexSummary{5, 0, 0}));

    // A touched file, and a file whose size changes under the same time, are reread.
    auto touched = music / "a/1.mp3";
    setMtime(touched, 1600000000, 123456789);
    auto grown = music / "a/B.MP3";
    struct stat st {};
    ASSERT_EQ(stat(grown.c_str(), &st), 0);
    std::ofstream(grown, std::ios::app) << "tail";
    setMtime(grown, st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
    EXPECT_EQ(Indexer::run(roots, store, false), (IndexSummary{5, 2, 0}));
    EXPECT_EQ(store.stamps().at(touched.string()).mtime, 1600000000.123456789);

    // Force rereads all and still removes what is gone.
    fs::remove(music / "b/deep/3.mp3");
    EXPECT_EQ(Indexer::run(roots, store, true), (IndexSummary{4, 4, 1}));

    // A missing root keeps its tracks; they count neither as found nor removed. So does
    // an empty folder in its place (a drive not mounted leaves its mount point).
    fs::rename(music, dir / "moved");
    EXPECT_EQ(Indexer::run(roots, store, false), (IndexSummary{1, 0, 0, {root}}));
    fs::create_directory(music);
    EXPECT_EQ(Indexer::run(roots, store, true), (IndexSummary{1, 1, 0, {root}}));
    EXPECT_EQ(store.loadAll().size(), 4u);
    fs::remove(music);
    fs::rename(dir / "moved", music);

    EXPECT_EQ(Indexer::run({root, (music / "a").string(), other.string()}, store, false),
              (IndexSummary{4, 0, 0}));
    EXPECT_EQ(Indexer::run({}, store, false), (IndexSummary{0, 0, 4}));
    EXPECT_TRUE(store.loadAll().empty());
}

TEST(Indexer, BrokenFilesAreCountedButNotStored) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto music = dir.subdir("music");
    auto cut = dir.subdir("music/cut");
    put(music, "good.mp3");
    int broken = 0;
    for (std::string ext : {"flac", "mp3", "m4a", "wav", "aiff", "ogg", "opus", "caf", "aac"})
        for (auto kind : {fx::Broken::zeroBytes, fx::Broken::garbage})
            fx::writeBroken(music, std::to_string(broken++) + "." + ext, kind);
    // Truncated files keep their headers: reading them may succeed, and must not crash.
    for (auto basis : {fx::Format::flac, fx::Format::mp3, fx::Format::aac, fx::Format::wav,
                       fx::Format::vorbis, fx::Format::caf})
        fx::writeBroken(cut, "cut." + fx::extension(basis), fx::Broken::truncated, basis);
    LibraryStore store(dir / "library.sqlite");
    // A cached record of a file that now fails to read stays as it was.
    const Track old{.path = (music / "0.flac").string(), .title = "antes"};
    store.apply({old}, {});

    auto summary = Indexer::run({music.string()}, store, false);
    EXPECT_EQ(summary.fileCount, broken + 7);
    EXPECT_GE(summary.unreadableCount, broken);
    EXPECT_EQ(summary.readCount + summary.unreadableCount, summary.fileCount);
    auto stored = paths(store.loadAll());
    EXPECT_EQ(summary.readCount, static_cast<int64_t>(stored.size()) - 1);
    std::erase_if(stored, [&](const std::string& p) { return p.starts_with(cut.string()); });
    EXPECT_EQ(stored, (std::set<std::string>{(music / "good.mp3").string(), old.path}));
}

// Progress counts against the final total, every 64 files and at the end, in order.
TEST(Indexer, ProgressCountsEvery64FilesAgainstTheFinalTotal) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto music = dir.subdir("music");
    // Names built by appending: "d" + std::string trips GCC 12's -Wrestrict in Release.
    for (int i = 0; i < 130; ++i)
        put(music,
            std::string("d").append(std::to_string(i % 13)) + "/sub/" + std::to_string(i) + ".mp3");
    LibraryStore store(dir / "library.sqlite");
    std::mutex m;
    Calls calls;
    const auto progress = [&](int64_t done, int64_t total) {
        std::lock_guard lock(m);
        calls.emplace_back(done, total);
    };
    EXPECT_EQ(Indexer::run({music.string()}, store, false, progress), (IndexSummary{130, 130, 0}));
    EXPECT_EQ(calls, (Calls{{64, 130}, {128, 130}, {130, 130}}));
}

// A first scan cut short (here by a progress report that fails once records are committed)
// or a worker that throws: nothing committed is lost, and the next run goes on from there.
TEST(Indexer, CutScansAndThrowingWorkersLoseNothing) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto music = dir.subdir("music");
    const auto file = dir / "library.sqlite";
    const fs::path first = put(music, "0.mp3");
    for (int i = 1; i < 4000; ++i)
        fs::create_hard_link(first, music / (std::to_string(i) + ".mp3"));

    LibraryStore store(file), reader(file);
    const auto cut = [&](int64_t, int64_t) {
        if (!reader.stamps().empty()) throw std::runtime_error("cut");
    };
    EXPECT_THROW(Indexer::run({music.string()}, store, false, cut), std::runtime_error);
    const auto kept = static_cast<int64_t>(store.stamps().size());
    EXPECT_GT(kept, 0);
    EXPECT_LT(kept, 4000);
    EXPECT_EQ(Indexer::run({music.string()}, store, false), (IndexSummary{4000, 4000 - kept, 0}));

    // A worker that throws (memory running out) fails the run, not the program, whichever
    // way the run reads: into an empty cache, forced, or only what changed.
    const auto throwing = [](int64_t, int64_t) { throw std::bad_alloc(); };
    LibraryStore empty(dir / "empty.sqlite");
    EXPECT_THROW(Indexer::run({music.string()}, empty, false, throwing), std::bad_alloc);
    EXPECT_THROW(Indexer::run({music.string()}, store, true, throwing), std::bad_alloc);
    setMtime(first, 1600000000, 0); // hard links: every file changed
    EXPECT_THROW(Indexer::run({music.string()}, store, false, throwing), std::bad_alloc);
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_NE(store.stamps().at(first.string()).mtime, 1600000000.0);
}

// A sub-folder whose listing fails keeps the tracks cached under it, and is named; the
// rest of the walk goes on and removes what is really gone. The failure here: a path
// too long to open, which fails for every user (permissions would not stop root).
TEST(Indexer, AFolderThatCannotBeListedKeepsItsTracks) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto music = dir.subdir("music");
    put(music, "a/1.mp3");
    const std::string name(250, 'd');
    std::vector<int> fds = {::open(music.c_str(), O_DIRECTORY | O_RDONLY)};
    std::string deep = music.string();
    while (deep.size() < 4200) {
        ASSERT_EQ(mkdirat(fds.back(), name.c_str(), 0755), 0);
        fds.push_back(openat(fds.back(), name.c_str(), O_DIRECTORY | O_RDONLY));
        ASSERT_GE(fds.back(), 0);
        deep += "/" + name;
    }
    const Track hidden{.path = deep + "/x.mp3", .title = "lejos"};
    const Track gone{.path = (music / "b/gone.mp3").string()};
    LibraryStore store(dir / "library.sqlite");
    for (bool force : {false, true}) {
        store.apply({hidden, gone}, {});
        const auto summary = Indexer::run({music.string()}, store, force);
        EXPECT_EQ(std::tie(summary.fileCount, summary.removedCount), std::make_tuple(1, 1));
        ASSERT_EQ(summary.unavailable.size(), 1u);
        EXPECT_TRUE(deep.starts_with(summary.unavailable[0] + "/") ||
                    deep == summary.unavailable[0]);
        EXPECT_TRUE(store.stamps().contains(hidden.path));
        EXPECT_FALSE(store.stamps().contains(gone.path));
    }
    // The temporary folder's removal works with full paths: take the chain apart here.
    for (std::size_t i = fds.size() - 1; i > 0; --i) {
        ::close(fds[i]);
        EXPECT_EQ(unlinkat(fds[i - 1], name.c_str(), AT_REMOVEDIR), 0);
    }
    ::close(fds[0]);
}
