// SPDX-License-Identifier: GPL-3.0-or-later
// The watcher on real folders and a real inotify descriptor, and the incremental update
// it leads to, against a real store.

#include "library/FolderWatcher.h"
#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <fstream>

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
    fs::create_directories(dir / "music" / "old");
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

    // A file written, a folder created (with a file in it), a folder renamed.
    std::ofstream(dir / "music" / "a.flac") << "x";
    fs::create_directories(dir / "music" / "new" / "deeper");
    fs::rename(dir / "music" / "old", dir / "music" / "renamed");
    watcher.readEvents(t0);
    EXPECT_EQ(watcher.due(), t0 + 1000ms);
    // Events that keep coming push the moment on, up to five seconds after the first.
    std::ofstream(dir / "music" / "new" / "deeper" / "b.mp3") << "x";
    watcher.readEvents(t0 + 3000ms);
    EXPECT_EQ(watcher.due(), t0 + 4000ms);
    std::ofstream(dir / "music" / "new" / "deeper" / "c.mp3") << "x";
    watcher.readEvents(t0 + 4500ms);
    EXPECT_EQ(watcher.due(), t0 + 5000ms);

    const FolderChanges got = watcher.take();
    EXPECT_EQ(got, changes({root + "/new", root + "/old", root + "/renamed"},
                           {root, root + "/new/deeper"}))
        << "the new folder's own folder was watched as soon as it was seen";
    EXPECT_FALSE(watcher.due());
    // The renamed folder is watched under its new name only.
    std::ofstream(dir / "music" / "renamed" / "d.flac") << "x";
    watcher.readEvents(t0);
    EXPECT_EQ(watcher.take(), changes({}, {root + "/renamed"}));

    // The root goes: it is missing (its tracks are kept), and watched again once back.
    fs::rename(dir / "music", dir / "gone");
    watcher.readEvents(t0);
    EXPECT_TRUE(watcher.rootsChanged());
    EXPECT_EQ(watcher.roots().at(0).mode, FolderWatcher::Mode::missing);
    EXPECT_EQ(watcher.watchCount(), 0u);
    fs::rename(dir / "gone", dir / "music");
    watcher.watch({root});
    EXPECT_EQ(watcher.roots().at(0).mode, FolderWatcher::Mode::watched);
    EXPECT_EQ(watcher.watchCount(), 4u); // music, new, new/deeper, renamed; not .cache
}

// What the end-to-end watch story does not reach: a file moved to another folder is
// carried over unread, a folder outside the roots is not looked at, and a drive that goes
// leaves an empty mount point whose tracks stay.
TEST(Indexer, UpdateCarriesMovedFilesOverAndKeepsAnEmptyMountPoint) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    const std::string root = (dir / "music").string(), other = (dir / "usb").string();
    put(dir.path(), "music/B/1.flac");
    put(dir.path(), "usb/x.flac");
    LibraryStore store(dir / "library.sqlite");
    Indexer::run({root, other}, store, false);

    fs::rename(dir / "music" / "B" / "1.flac", dir / "music" / "1.flac");
    put(dir.path(), "elsewhere/y.flac");
    auto s = Indexer::update(changes({(dir / "elsewhere").string()}, {root, root + "/B"}),
                             {root, other}, store);
    EXPECT_EQ(std::tie(s.readCount, s.movedCount, s.removedCount), std::make_tuple(0, 1, 0));
    const auto moved = store.loadUnder(root);
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved.path(0), root + "/1.flac");
    EXPECT_EQ(moved.track(0).title, "Uno"); // its record, tags and all, not read again

    fs::remove(dir / "usb" / "x.flac");
    s = Indexer::update(changes({}, {other}), {root, other}, store);
    EXPECT_EQ(s.removedCount, 0);
    EXPECT_EQ(s.unavailable, std::vector<std::string>{other});
    EXPECT_EQ(store.loadUnder(other).size(), 1u);
    EXPECT_EQ(store.loadTable().size(), 2u);
}
