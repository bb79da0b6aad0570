// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Brings the store in line with the music folders: walks the roots, rereads only the
// audio files whose stamp changed (on one worker per available core) and writes the
// new records and the removals in one batch. Stateless; run it off the main thread.

#include "config/FileStamp.h"
#include "library/FolderChanges.h"
#include "library/Track.h"

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace trovan {

class LibraryStore;

struct IndexSummary {
    IndexSummary() = default;
    IndexSummary(int64_t found, int64_t read, int64_t removed,
                 std::vector<std::string> unavailableFolders = {}, int64_t unreadable = 0)
        : fileCount(found), readCount(read), removedCount(removed),
          unavailable(std::move(unavailableFolders)), unreadableCount(unreadable) {}

    int64_t fileCount = 0;    // audio files found under the roots that exist
    int64_t readCount = 0;    // files reread and stored
    int64_t removedCount = 0; // cached paths removed
    // Roots and folders that could not be read (absent, empty or unreadable) while the
    // cache holds tracks under them: those tracks were kept.
    std::vector<std::string> unavailable;
    int64_t unreadableCount = 0; // audio files that could not be read (named on stderr)
    int64_t movedCount = 0;      // records carried to a new path without reading the file

    bool operator==(const IndexSummary&) const = default;
};

class Indexer {
public:
    // (done, total); called from worker threads, possibly concurrently, every 64 files
    // and once more at the end.
    using Progress = std::function<void(int64_t done, int64_t total)>;

    struct ScanResult {
        std::unordered_map<std::string, FileStamp> found; // absolute path to stamp
        std::vector<std::string> missingRoots;            // roots that are not usable folders
    };

    // Scans, reads what changed (everything with `force`) and applies it to the store.
    // Tracks under a root that is missing, empty or unreadable, and under a folder that
    // cannot be listed, stay in the store. Never throws for file-system trouble; throws
    // what the store throws, and what a worker threw (memory running out) once every
    // worker has stopped. When every file is to be read (an empty cache, or `force`),
    // reading starts while the walk goes on, and `progress` starts once the walk has
    // counted the files; into an empty cache the records are also stored as they come,
    // committed every few thousand records or seconds.
    static IndexSummary run(const std::vector<std::string>& roots, LibraryStore& store, bool force,
                            const Progress& progress = {});

    // Brings only the changed folders in line: their files are listed again, new and
    // changed ones read, vanished ones removed. A file that appears with the name and
    // stamp of one that vanished in the same update (a folder renamed or moved) takes
    // over its record without being read. Folders outside the roots are ignored; tracks
    // under a root that is missing or empty, or under a folder that cannot be read,
    // stay, as in a full run. `fileCount` is the number of files listed. The moved files'
    // old and new paths go to `moves` when given.
    static IndexSummary update(const FolderChanges& changes, const std::vector<std::string>& roots,
                               LibraryStore& store, int workers = 0,
                               std::unordered_map<std::string, std::string>* moves = nullptr);

    // Walks every root: hidden entries (names starting with ".") are skipped and not
    // descended into, symbolic links are not followed (except a root that is one), and
    // only regular files with an audio extension are kept. Each kept file is stat'ed once.
    static ScanResult scan(const std::vector<std::string>& roots);

    // Reads the files on `workers` threads (0: one per available core), interleaving
    // the paths among them. Failed reads are dropped. The order of the result carries
    // no meaning.
    static std::vector<Track> read(const std::vector<std::string>& paths,
                                   const Progress& progress = {}, int workers = 0);

private:
    static IndexSummary scanInto(const std::vector<std::string>& roots, LibraryStore& store,
                                 bool force, const Progress& progress);
};

} // namespace trovan
