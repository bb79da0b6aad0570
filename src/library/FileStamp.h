#pragma once

#include <cstdint>

namespace trovan {

// Modification time and size of a file; equal only when both match exactly.
struct FileStamp {
    double mtime = 0; // seconds since 1970
    int64_t size = 0; // bytes

    bool operator==(const FileStamp&) const = default;
};

} // namespace trovan
