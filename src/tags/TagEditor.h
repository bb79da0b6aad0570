#pragma once
// Reads and writes the tags of a set of files for the three editing front ends (the
// form, the tag document, the cover commands) and stores the re-read records in the
// library. Every operation here does file work and runs on a worker thread; keeping the
// playing track going across a write is the controller's part, on the main thread.

#include "library/Track.h"
#include "media/TagLibFile.h"
#include "tags/SafeWrite.h"
#include "tags/TagPatch.h"

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
};

class TagEditor {
public:
    // Without a store the records are re-read but kept nowhere.
    explicit TagEditor(std::shared_ptr<LibraryStore> store);

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

private:
    TagWriteResult write(const std::vector<std::string>& paths, const SafeWrite::Edit& body,
                         std::uint64_t growth);

    std::shared_ptr<LibraryStore> store_;
    // One batch at a time: a second one started meanwhile waits instead of racing the
    // first over the same files.
    std::mutex writing_;
};

} // namespace trovan
