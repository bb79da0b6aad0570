// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace trovan {

// Finding a track's picture on disk.
class CoverFile {
public:
    // Pictures larger than this are not covers; reading them would only waste memory.
    static constexpr std::uintmax_t maxBytes = 32u * 1024 * 1024;

    // The picture embedded in the file, else a cover image beside it (cover.jpg,
    // folder.png, …). Absent when there is none.
    static std::optional<std::vector<std::uint8_t>> read(const std::string& track);
};

} // namespace trovan
