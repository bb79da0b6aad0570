// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/CoverFile.h"

#include "config/AppPaths.h"
#include "media/ImageDecoder.h"
#include "text/Text.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <utility>

namespace trovan {

namespace {

// A picture file next to the track, by the names people and rippers use most, in this
// order of preference whatever order the folder lists them in; case is ignored.
std::optional<std::vector<std::uint8_t>> folderImage(const std::filesystem::path& track) {
    static const std::string_view stems[] = {"cover", "folder", "front", "album", "artwork"};
    static const std::string_view exts[] = {"jpg", "jpeg", "png", "webp", "gif", "bmp"};
    constexpr std::size_t none = std::size(stems) * std::size(exts);
    auto rank = [](const std::string& name) {
        const auto dot = name.rfind('.');
        if (dot == std::string::npos) return none;
        const std::string_view stem = std::string_view(name).substr(0, dot);
        const std::string_view ext = std::string_view(name).substr(dot + 1);
        for (std::size_t s = 0; s < std::size(stems); ++s)
            for (std::size_t e = 0; e < std::size(exts); ++e)
                if (stem == stems[s] && ext == exts[e]) return s * std::size(exts) + e;
        return none;
    };

    // The error-code forms throughout: a folder that cannot be listed (or stops being
    // listable half-way) simply has no cover.
    std::vector<std::pair<std::size_t, std::filesystem::path>> candidates;
    std::error_code ec;
    std::filesystem::directory_iterator it(track.parent_path(), ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        const auto name = text::fold(it->path().filename().string());
        if (const auto r = rank(name); r != none) candidates.emplace_back(r, it->path());
    }
    std::sort(candidates.begin(), candidates.end());
    for (const auto& [r, path] : candidates) {
        const auto file = AppPaths::readCapped(path, CoverFile::maxBytes);
        if (!file) continue;
        std::vector<std::uint8_t> bytes(file->begin(), file->end());
        if (ImageDecoder::isImage(bytes)) return bytes;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::vector<std::uint8_t>> CoverFile::read(const std::string& track) {
    if (auto embedded = ImageDecoder::embeddedPicture(track)) return embedded;
    return folderImage(track);
}

} // namespace trovan
