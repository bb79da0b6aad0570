// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <ctime>

namespace trovan {

// Modification time and size of a file; equal only when both match exactly.
struct FileStamp {
    double mtime = 0; // seconds since 1970
    int64_t size = 0; // bytes

    bool operator==(const FileStamp&) const = default;

    // The one conversion from the file system's time, so every reader agrees to the bit.
    static double seconds(const timespec& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
    }
};

} // namespace trovan
