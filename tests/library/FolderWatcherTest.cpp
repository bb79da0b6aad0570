// SPDX-License-Identifier: GPL-3.0-or-later
// The watcher on real folders and a real inotify descriptor, and the incremental update
// it leads to, against a real store.

#include "library/FolderWatcher.h"
#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/inotify.h>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

fs::path put(const fs::path& dir, const std::string& rel) {
    static const auto flac = fx::cached(
        "watch-unit.flac", {.seconds = 0.2, .channels = 1, .tags = {{"TITLE", {"Uno"}}}});
    fs::create_directories((dir / rel).parent_path());
    fs::copy_file(flac, dir / rel);
    return dir / rel;
}

FolderChanges changes(std::set<std::string> trees, std::set<std::string> folders) {
    FolderChanges c;
    c.trees = std::move(trees);
    c.folders = std::move(folders);
    return c;
}

} // namespace

TEST(FolderWatcher, GathersFoldersAndHandsThemOutAfterAQuietMoment) {
    fx::TempDir dir;
    const std::string root = (dir / "music").string();
    fs::create_directories(dir / "music" / "old"); // an empty root reads as a drive not mounted
    FolderWatcher watcher(1000ms, 5000ms);
    ASSERT_GE(watcher.fd(), 0);
    watcher.watch({root});
    ASSERT_EQ(watcher.roots().at(0).mode, FolderWatcher::Mode::watched);

    const auto t0 = FolderWatcher::Clock::now();
    // Ignored: hidden names, files that are not audio, a hidden folder.
    std::ofstream(dir / "music" / ".x.flac") << "x";
    std::ofstream(dir / "music" / "notes.txt") << "x";
    fs::create_directories(dir / "music" / ".cache");
    watcher.readEvents(t0);
    EXPECT_FALSE(watcher.due());

    // A file written, a folder created (with a folder in it).
    std::ofstream(dir / "music" / "a.flac") << "x";
    fs::create_directories(dir / "music" / "new" / "deeper");
    watcher.readEvents(t0);
    EXPECT_EQ(watcher.due(), t0 + 1000ms);
    // Events that keep coming push the moment on, up to five seconds after the first.
    std::ofstream(dir / "music" / "new" / "deeper" / "b.mp3") << "x";
    watcher.readEvents(t0 + 3000ms);
    EXPECT_EQ(watcher.due(), t0 + 4000ms);
    std::ofstream(dir / "music" / "new" / "deeper" / "c.mp3") << "x";
    watcher.readEvents(t0 + 4500ms);
    EXPECT_EQ(watcher.due(), t0 + 5000ms);

    EXPECT_EQ(watcher.take(), changes({root + "/new"}, {root, root + "/new/deeper"}))
        << "the new folder's own folder was watched as soon as it was seen";
    EXPECT_FALSE(watcher.due());
}

// A large library can use up the system's watches: the root where that happens is polled
// instead, and gives back the watches it took so that the next root can have one.
TEST(FolderWatcher, FallsBackToPollingWhereWatchesRunOut) {
    fx::TempDir dir;
    for (const char* sub : {"a/1", "a/2", "b"})
        fs::create_directories(dir / "one" / sub);
    fs::create_directories(dir / "two");
    std::ofstream(dir / "two" / "x.flac") << "x";
    FolderWatcher watcher(1000ms, 5000ms, [&](int fd, const char* path, uint32_t mask) {
        if (std::string_view(path).ends_with("/one/b")) {
            errno = ENOSPC;
            return -1;
        }
        return inotify_add_watch(fd, path, mask);
    });
    watcher.watch({(dir / "one").string(), (dir / "two").string(), (dir / "absent").string()});
    const auto roots = watcher.roots();
    EXPECT_EQ(roots.at(0).mode, FolderWatcher::Mode::polled);
    EXPECT_EQ(roots.at(0).reason, FolderWatcher::Reason::watchLimit);
    EXPECT_EQ(roots.at(1).mode, FolderWatcher::Mode::watched);
    EXPECT_EQ(roots.at(2).mode, FolderWatcher::Mode::missing);
    EXPECT_EQ(watcher.watchCount(), 1u);
}

// What the end-to-end watch story does not reach: a drive that goes leaves an empty mount
// point whose tracks stay.
TEST(Indexer, UpdateKeepsAnEmptyMountPoint) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    const std::string root = (dir / "music").string(), other = (dir / "usb").string();
    put(dir.path(), "music/B/1.flac");
    put(dir.path(), "usb/x.flac");
    LibraryStore store(dir / "library.sqlite");
    Indexer::run({root, other}, store, false);

    fs::remove(dir / "usb" / "x.flac");
    const auto s = Indexer::update(changes({}, {other}), {root, other}, store);
    EXPECT_EQ(s.removedCount, 0);
    EXPECT_EQ(s.unavailable, std::vector<std::string>{other});
    EXPECT_EQ(store.loadUnder(other).size(), 1u);
    EXPECT_EQ(store.loadTable().size(), 2u);
}
