// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Where the program keeps its data, the one way it writes files that must never be left
// half-written, and the one way it reads a whole file of bounded size.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace trovan {

class AppPaths {
public:
    // TROVAN_HOME when set (non-empty), else $XDG_DATA_HOME/Trovan, else
    // ~/.local/share/Trovan. Not created here.
    static std::filesystem::path support();
    static std::filesystem::path libraryFile() { return support() / "library.sqlite"; }
    static std::filesystem::path configFile() { return support() / "config.json"; }
    // Standard error of the last session (overwritten by each run).
    static std::filesystem::path logFile() { return support() / "trovan.log"; }

    // Writes `bytes` to a temporary file next to `target`, flushes it to disk and renames
    // it over the target, creating missing parent folders first. A target that is a
    // symbolic link is written where the link points. On failure the target is
    // untouched, the temporary file is removed, errno tells why and false is returned.
    // A new file gets `newMode`.
    static bool writeAtomically(const std::filesystem::path& target, std::string_view bytes,
                                unsigned newMode = 0644);
    // The last step of every such write (the tag writes' too): renames the written and
    // synced `temp` over `target`, then syncs their folder so that the new name survives a
    // power cut. False, with errno, when the rename fails and the target is untouched;
    // `folderSynced` tells whether the folder's sync held.
    static bool replaceWith(const std::string& temp, const std::string& target,
                            bool* folderSynced = nullptr);
    // Syncs a folder's names to disk. A file system that cannot sync folders (EINVAL)
    // counts as synced.
    static bool syncFolder(const std::filesystem::path& folder);
    // The bytes of the regular file at `path` when it holds at most `cap` of them. None
    // when it is missing, not a regular file, unreadable or larger (then `tooLarge` is set).
    static std::optional<std::string> readCapped(const std::filesystem::path& path,
                                                 std::uintmax_t cap, bool* tooLarge = nullptr);
    // Where `path` ends up after following symbolic links (itself when it is none).
    static std::filesystem::path throughLinks(const std::filesystem::path& path);
};

} // namespace trovan
