// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/ArtworkCache.h"

#include "config/AppPaths.h"
#include "media/Fingerprint.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace trovan {

namespace fs = std::filesystem;

namespace {

const char* const kPrefix = "cover-";

// Desktops pick a loader by the file's extension as often as by its content.
std::string imageExtension(const std::vector<std::uint8_t>& b) {
    auto starts = [&](std::string_view magic, std::size_t at = 0) {
        return b.size() >= at + magic.size() &&
               std::equal(magic.begin(), magic.end(), b.begin() + static_cast<long>(at),
                          [](char m, std::uint8_t c) { return static_cast<std::uint8_t>(m) == c; });
    };
    if (starts("\xFF\xD8\xFF")) return ".jpg";
    if (starts("\x89PNG")) return ".png";
    if (starts("GIF8")) return ".gif";
    if (starts("BM")) return ".bmp";
    if (starts("RIFF") && starts("WEBP", 8)) return ".webp";
    if (starts(std::string_view("II*\0", 4)) || starts(std::string_view("MM\0*", 4))) return ".tif";
    return ".img";
}

} // namespace

void ArtworkCache::prune(const fs::path& keep) {
    std::error_code ec;
    for (fs::directory_iterator it(folder_, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path& p = it->path();
        if (p != keep && p.filename().string().rfind(kPrefix, 0) == 0) {
            std::error_code ignored;
            fs::remove(p, ignored);
        }
    }
}

std::optional<fs::path> ArtworkCache::write(int generation,
                                            const std::vector<std::uint8_t>& bytes) {
    const std::string_view view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    // Named by content: a client that keeps a picture per URL never shows an old one.
    const fs::path file = folder_ / (kPrefix + fingerprint(view) + imageExtension(bytes));
    std::lock_guard guard(lock_);
    if (generation != latest_) return std::nullopt;
    std::error_code ec;
    const bool present = fs::file_size(file, ec) == bytes.size() && !ec;
    if (!present && !AppPaths::writeAtomically(file, view)) return std::nullopt;
    prune(file);
    writtenGeneration_ = generation;
    written_ = file;
    return file;
}

void ArtworkCache::clear(int generation) {
    std::lock_guard guard(lock_);
    if (generation == latest_) prune(writtenGeneration_ == generation ? written_ : fs::path());
}

} // namespace trovan
