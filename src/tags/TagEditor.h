// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Reads and writes the tags of a set of files for the three editing front ends (the
// form, the tag document, the cover commands) and stores the re-read records in the
// library. Every operation here does file work and runs on a worker thread; keeping the
// playing track going across a write is the controller's part, on the main thread.

#include "library/Track.h"
#include "media/TagLibFile.h"
#include "tags/SafeWrite.h"
#include "tags/TagPatch.h"
#include "tags/WriteJournal.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace trovan {

class LibraryStore;

// The outcome of one batch: the records re-read from the files written, and the paths
// that could not be opened, written, checked or re-read.
struct TagWriteResult {
    std::vector<Track> updated;
    std::vector<std::string> failed;
    // Files not started because the program was quitting.
    std::size_t skipped = 0;
};

class TagEditor {
public:
    // Without a store the records are re-read but kept nowhere. Working files are
    // recorded in `journal`, the data folder's when none.
    explicit TagEditor(std::shared_ptr<LibraryStore> store,
                       std::shared_ptr<WriteJournal> journal = nullptr);

    // How many files of a batch are written at once (2 by default). With 1 the system
    // calls of a batch come in the same order every time.
    void setWorkers(std::size_t workers) { workers_ = std::max<std::size_t>(1, workers); }

    // One map per path, in order; a file that cannot be opened gives an empty map.
    static std::vector<PropertyMap> properties(const std::vector<std::string>& paths);
    // The first LYRICS value, or empty text.
    static std::string lyrics(const std::string& path);

    // Writes the patch into every file: removals first, then each changed key replaced
    // by its complete list of values. Only the keys of the patch are touched; a file
    // whose format cannot hold a changed key is not written.
    TagWriteResult apply(const TagPatch& patch, const std::vector<std::string>& paths);
    // Replaces every embedded picture by `picture`, or removes them all. The picture's
    // type is the one its bytes show; one larger than Picture::maxBytes is written
    // nowhere (every path fails).
    TagWriteResult setPicture(const std::optional<Picture>& picture,
                              const std::vector<std::string>& paths);

    // For quitting, from any thread: the file in hand finishes or rolls back, no other
    // is started. True once no batch runs, false if `timeout` passed first; `written`
    // and `total` tell how far the last batch got.
    bool stopAndWait(std::chrono::milliseconds timeout, std::size_t& written, std::size_t& total);

private:
    TagWriteResult write(const std::vector<std::string>& paths, const SafeWrite::Edit& body,
                         std::uint64_t growth);

    std::shared_ptr<LibraryStore> store_;
    // One batch at a time: a second one started meanwhile waits instead of racing the
    // first over the same files.
    std::mutex writing_;
    std::shared_ptr<WriteJournal> journal_;
    std::atomic<bool> stop_{false};
    std::mutex progressMutex_;
    std::condition_variable idle_;
    bool busy_ = false;
    std::size_t written_ = 0, total_ = 0;
    std::size_t workers_ = 2;
};

} // namespace trovan
