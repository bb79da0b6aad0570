#pragma once
// Writing tags into a person's music files without ever leaving one torn. TagLib saves
// in place and never syncs, so a crash or a full disk in the middle of a save would
// damage the only copy. Instead each file is copied to a hidden temporary file in its
// own folder, the tags are saved into the copy, the copy is checked (it opens, the tags
// and picture read back as set, the audio properties are the same, the audio itself is
// intact), synced and renamed over the original, and the folder is synced. A file with
// several hard links cannot be replaced by a rename without splitting its links: it is
// rewritten in place, after a synced backup beside it that a later write restores if the
// process died meanwhile.

#include "media/TagLibFile.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace trovan {

class SafeWrite {
public:
    // Changes the tags of the open copy; false when the change cannot be made.
    using Edit = std::function<bool(TagLibFile&)>;

    // Our own working files: hidden (the indexer skips them) and named after the
    // process that made them, so a later write can tell leftovers of a dead run.
    static constexpr std::string_view tempPrefix = ".trovan-tmp-";
    static constexpr std::string_view backupPrefix = ".trovan-bak-";
    static bool isWorkFileName(std::string_view fileName);

    // TagLib stores a FLAC metadata block's length in 24 bits.
    static constexpr std::uint64_t flacBlockLimit = 1u << 24;
    // Free space kept beyond the copy's own size.
    static constexpr std::uint64_t spaceMargin = 4u << 20;

    // Applies `edit` to the file at `path` as described above. `growth` is how many
    // bytes the edit may add (new values, a picture), for the free-space check.
    // Returns none on success, otherwise why the file was left as it was.
    static std::optional<std::string> write(const std::string& path, const Edit& edit,
                                            std::uint64_t growth);

    // Removes temporary files of runs that are gone from `folder`, and restores the
    // originals from their backups (the in-place write may have stopped half-way).
    static void cleanLeftovers(const std::string& folder);
};

} // namespace trovan
