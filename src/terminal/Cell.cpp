// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/Cell.h"

#include "text/Text.h"

#include <mutex>
#include <unordered_set>

namespace trovan {

namespace {

// Long clusters are rare (family emoji, long combining stacks); the set only grows
// with the distinct ones actually drawn.
const std::string* intern(std::string_view s) {
    static std::mutex mutex;
    static std::unordered_set<std::string> pool;
    std::lock_guard lock(mutex);
    return &*pool.emplace(s).first;
}

} // namespace

Glyph::Glyph(std::string_view cluster) {
    assign(cluster, text::charWidth(cluster));
}

Glyph::Glyph(std::string_view cluster, int width) {
    assign(cluster, width);
}

void Glyph::assign(std::string_view cluster, int width) {
    // Never send ill-formed UTF-8 to the terminal: the whole cluster becomes U+FFFD.
    const bool ascii = cluster.size() == 1 && static_cast<unsigned char>(cluster[0]) < 0x80;
    if (!ascii && !cluster.empty() && !text::isValidUtf8(cluster)) cluster = "\xEF\xBF\xBD";
    width_ = static_cast<std::uint8_t>(width < 0 ? 0 : (width > 2 ? 2 : width));
    if (cluster.size() <= kInline) {
        std::memcpy(bytes_, cluster.data(), cluster.size());
        size_ = static_cast<std::uint8_t>(cluster.size());
        return;
    }
    const std::string* p = intern(cluster);
    std::memcpy(bytes_, &p, sizeof p);
    size_ = kInterned;
}

} // namespace trovan
