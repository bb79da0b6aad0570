// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Writing tags into a person's music files without ever leaving one torn. TagLib saves
// in place and never syncs, so a crash or a full disk in the middle of a save would
// damage the only copy. Instead each file is copied to a hidden temporary file in its
// own folder, the tags are saved into the copy, the copy is checked (it opens, the tags
// and picture read back as set, the audio properties are the same, the audio itself is
// intact), synced and renamed over the original, and the folder is synced. A file with
// several hard links cannot be replaced by a rename without splitting its links: it is
// rewritten in place, after a synced backup beside it. Every working file is recorded
// in the write journal first, which is how the next start finds and settles what a
// crash left behind.

#include "media/TagLibFile.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace trovan {

class WriteJournal;

class SafeWrite {
public:
    // Changes the tags of the open copy; false when the change cannot be made.
    using Edit = std::function<bool(TagLibFile&)>;

    // Our own working files: hidden (the indexer skips them) and named after the
    // process that made them. Only the journal makes them ours, never the name.
    static constexpr std::string_view tempPrefix = ".trovan-tmp-";
    static constexpr std::string_view backupPrefix = ".trovan-bak-";
    static bool isWorkFileName(std::string_view fileName);

    // TagLib stores a FLAC metadata block's length in 24 bits.
    static constexpr std::uint64_t flacBlockLimit = 1u << 24;
    // Free space kept beyond the copy's own size.
    static constexpr std::uint64_t spaceMargin = 4u << 20;

    struct Context {
        // Where the working files are recorded; the data folder's when none.
        WriteJournal* journal = nullptr;
        // Set when the program is quitting: a write not yet committed is rolled back.
        const std::atomic<bool>* stop = nullptr;
    };

    // Applies `edit` to the file at `path` as described above (through a symbolic link,
    // to the file it leads to). `growth` is how many bytes the edit may add (new values,
    // a picture), for the free-space check. Returns none on success, otherwise why the
    // file was left as it was.
    static std::optional<std::string> write(const std::string& path, const Edit& edit,
                                            std::uint64_t growth, Context context);
    static std::optional<std::string> write(const std::string& path, const Edit& edit,
                                            std::uint64_t growth);

    // Makes `to` hold exactly the first `length` bytes of `from`, synced.
    static bool copyInPlace(int from, int to, off_t length);
};

} // namespace trovan
