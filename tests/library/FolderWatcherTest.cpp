// SPDX-License-Identifier: GPL-3.0-or-later
// The watcher on real folders and a real inotify descriptor, and the incremental update
// it leads to, against a real store.

#include "library/FolderWatcher.h"
#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <cerrno>
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

TEST(FolderWatcher, FallsBackToPollingWhereWatchesRunOut) {
    fx::TempDir dir;
    for (const char* sub : {"a/1", "a/2", "b"})
        fs::create_directories(dir / "one" / sub);
    fs::create_directories(dir / "two");
    std::ofstream(dir / "two" / "x.flac") << "x";
    // The limit runs out inside the first root.
    FolderWatcher watcher(1000ms, 5000ms, [&](int fd, const char* path, uint32_t mask) {
        if (std::string_view(path).ends_with("/one/b")) {
            errno = ENOSPC;
            return -1;
        }
        return inotify_add_watch(fd, path, mask);
    });
    const std::string one = (dir / "one").string(), two = (dir / "two").string();
    watcher.watch({one, two, (dir / "absent").string()});
    const auto roots = watcher.roots();
    EXPECT_EQ(roots.at(0).mode, FolderWatcher::Mode::polled);
    EXPECT_EQ(roots.at(0).reason, FolderWatcher::Reason::watchLimit);
    // The first root's watches went back, so the second one could have one.
    EXPECT_EQ(roots.at(1).mode, FolderWatcher::Mode::watched);
    EXPECT_EQ(roots.at(2).mode, FolderWatcher::Mode::missing);
    EXPECT_EQ(watcher.watchCount(), 1u);
}

TEST(Indexer, UpdateLooksOnlyAtTheChangedFoldersAndCarriesMovedRecordsOver) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    const std::string root = (dir / "music").string(), other = (dir / "usb").string();
    put(dir.path(), "music/A/1.flac");
    put(dir.path(), "music/A/2.flac");
    put(dir.path(), "music/B/1.flac");
    put(dir.path(), "usb/x.flac");
    LibraryStore store(dir / "library.sqlite");
    Indexer::run({root, other}, store, false);

    // A folder renamed and a file moved to another folder: no file is read.
    fs::rename(dir / "music" / "A", dir / "music" / "C");
    fs::rename(dir / "music" / "B" / "1.flac", dir / "music" / "1.flac");
    auto s = Indexer::update(changes({root + "/A", root + "/C"}, {root, root + "/B"}),
                             {root, other}, store);
    EXPECT_EQ(s.readCount, 0);
    EXPECT_EQ(s.movedCount, 3);
    EXPECT_EQ(s.removedCount, 0);
    auto table = store.loadTable();
    std::set<std::string> paths;
    for (TrackTable::Id id = 0; id < table.size(); ++id) {
        paths.insert(std::string(table.path(id)));
        EXPECT_EQ(table.track(id).title, "Uno");
    }
    EXPECT_EQ(paths, (std::set<std::string>{root + "/1.flac", root + "/C/1.flac",
                                            root + "/C/2.flac", other + "/x.flac"}));

    // A new file is read, a changed one reread, one that went removed; a folder outside
    // the roots is not looked at.
    put(dir.path(), "music/C/3.flac");
    std::ofstream(dir / "music" / "C" / "2.flac", std::ios::app) << "more";
    fs::remove(dir / "music" / "1.flac");
    put(dir.path(), "elsewhere/y.flac");
    s = Indexer::update(changes({(dir / "elsewhere").string()}, {root + "/C", root}), {root, other},
                        store);
    EXPECT_EQ(s.readCount, 2);
    EXPECT_EQ(s.removedCount, 1);
    EXPECT_EQ(store.loadTable().size(), 4u);

    // A drive that goes leaves an empty mount point: its tracks stay.
    fs::remove(dir / "usb" / "x.flac");
    s = Indexer::update(changes({}, {other}), {root, other}, store);
    EXPECT_EQ(s.removedCount, 0);
    EXPECT_EQ(s.unavailable, std::vector<std::string>{other});
    EXPECT_EQ(store.loadUnder(other).size(), 1u);
}
