// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace trovan {

// A short stable name for some bytes (64-bit FNV-1a, 16 hex digits). Not for security:
// it only has to tell apart a handful of paths or pictures.
inline std::string fingerprint(std::string_view bytes) {
    uint64_t h = 14695981039346656037ull;
    for (unsigned char c : bytes) {
        h ^= c;
        h *= 1099511628211ull;
    }
    static const char digits[] = "0123456789abcdef";
    std::string s(16, '0');
    for (int i = 15; i >= 0; --i, h >>= 4)
        s[static_cast<std::size_t>(i)] = digits[h & 15];
    return s;
}

} // namespace trovan
