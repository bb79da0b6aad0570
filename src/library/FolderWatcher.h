// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Follows the music folders with inotify: one watch per folder under each root. Events
// are gathered into FolderChanges and handed out after a quiet moment, so a copy of a
// thousand files gives one update. Roots where notifications cannot be trusted (network
// and user-space file systems) or where the watch limit runs out are marked for polling
// instead; roots that are missing are marked so and tried again on the next watch().
//
// The descriptor goes into the caller's event loop: between events nothing runs.
// watch() may run on any thread while the loop thread calls readEvents(); the rest is
// for the loop thread.

#include "library/FolderChanges.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace trovan {

class FolderWatcher {
public:
    using Clock = std::chrono::steady_clock;

    enum class Mode { watched, polled, missing };
    enum class Reason { none, network, userSpace, watchLimit };
    struct RootState {
        std::string root;
        Mode mode = Mode::missing;
        Reason reason = Reason::none;
        std::string fileSystem; // its type, for polled roots ("nfs", "fuse"...)
        bool operator==(const RootState&) const = default;
    };

    // inotify_add_watch, replaceable for tests that need it to fail.
    using AddWatch = std::function<int(int fd, const char* path, uint32_t mask)>;

    // `quiet`: how long after the last event changes are handed out; `longest`: how
    // long after the first one at most, however busy the disk stays.
    explicit FolderWatcher(std::chrono::milliseconds quiet = std::chrono::milliseconds(1000),
                           std::chrono::milliseconds longest = std::chrono::milliseconds(5000),
                           AddWatch addWatch = {});
    ~FolderWatcher();
    FolderWatcher(const FolderWatcher&) = delete;
    FolderWatcher& operator=(const FolderWatcher&) = delete;

    // The inotify descriptor (-1 when the system refused one: then every root polls).
    int fd() const { return fd_; }

    // Watches every folder under the roots (walking them again, so folders missed
    // meanwhile are caught); drops the watches of roots no longer listed.
    void watch(const std::vector<std::string>& roots);
    // Drops every watch.
    void clear();
    std::vector<RootState> roots() const;
    // Number of folders watched.
    std::size_t watchCount() const;

    // Reads every event waiting on the descriptor, without blocking.
    void readEvents(Clock::time_point now = Clock::now());
    // When the gathered changes are due; none when nothing is gathered.
    std::optional<Clock::time_point> due() const;
    // Hands out what was gathered and starts afresh.
    FolderChanges take();
    // A root stopped being watched (deleted, moved away, unmounted) since the last call.
    bool rootsChanged();

    // Whether a file system's notifications can be trusted; its name otherwise.
    static std::optional<std::string> untrustedFileSystem(int64_t magic);

private:
    void watchRoot(const std::string& path);
    // Adds watches for `folder` and every folder below it; false when the limit ran out.
    bool addTree(const std::string& folder, bool followLink);
    void removeTree(const std::string& folder);
    // Records one event; true when it changed what is gathered.
    bool handle(int wd, uint32_t mask, const char* name);
    void note(Clock::time_point now);
    RootState* rootAt(const std::string& folder);
    void dropRoot(RootState& root, Mode mode, Reason reason = Reason::none);

    std::chrono::milliseconds quiet_, longest_;
    AddWatch addWatch_;
    int fd_ = -1;
    // Recursive: an event for a new folder adds its watches while the events are handled.
    mutable std::recursive_mutex mutex_;
    std::vector<RootState> roots_;
    std::unordered_map<int, std::string> folderOf_; // watch descriptor to folder
    std::map<std::string, int> watchOf_;            // folder to watch descriptor
    FolderChanges changes_;
    std::optional<Clock::time_point> first_, last_;
    bool rootsChanged_ = false;
};

} // namespace trovan
