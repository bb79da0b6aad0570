// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/CoverArtRenderer.h"

#include "media/ImageDecoder.h"
#include "text/Text.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <utility>

namespace trovan {

namespace {

// Pictures larger than this are not covers; reading them would only waste memory.
constexpr std::uintmax_t maxCoverFileBytes = 32u * 1024 * 1024;

std::optional<std::vector<std::uint8_t>> readFile(const std::filesystem::path& p) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(p, ec);
    if (ec || size == 0 || size > maxCoverFileBytes) return std::nullopt;
    std::ifstream in(p, std::ios::binary);
    if (!in) return std::nullopt;
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    if (!in) return std::nullopt;
    return bytes;
}

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
        std::error_code fileError;
        if (!std::filesystem::is_regular_file(path, fileError)) continue;
        if (auto bytes = readFile(path); bytes && ImageDecoder::isImage(*bytes)) return bytes;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::vector<std::uint8_t>> CoverArtRenderer::imageData(const std::string& path) {
    if (auto embedded = ImageDecoder::embeddedPicture(path)) return embedded;
    return folderImage(path);
}

std::shared_ptr<const PixelImage> CoverArtRenderer::image(std::span<const std::uint8_t> data,
                                                          int width, int height, RGB background) {
    // Larger than any screen: a bad cell size must not ask for gigabytes.
    constexpr int kLargest = 4096;
    if (width < 1 || height < 1 || width > kLargest || height > kLargest) return nullptr;
    auto decoded = ImageDecoder::decodeToFill(data, width, height);
    if (!decoded) return nullptr;
    const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::vector<std::uint8_t> rgb = std::move(decoded->rgb);
    if (rgb.size() != 3 * n) return nullptr;
    if (decoded->alpha.size() == n) {
        const std::uint8_t bg[3] = {background.r, background.g, background.b};
        for (std::size_t i = 0; i < n; ++i) {
            const int a = decoded->alpha[i];
            for (int c = 0; c < 3; ++c) {
                std::uint8_t& v = rgb[3 * i + static_cast<std::size_t>(c)];
                v = static_cast<std::uint8_t>(std::min(255, v + ((255 - a) * bg[c] + 127) / 255));
            }
        }
    }
    return PixelImage::make(width, height, std::move(rgb));
}

std::optional<std::vector<RGB>> CoverArtRenderer::pixels(std::span<const std::uint8_t> data,
                                                         int columns, int rows, RGB background) {
    if (columns < 1 || rows < 1) return std::nullopt;
    auto image = ImageDecoder::decodeToFill(data, columns, 2 * rows);
    if (!image) return std::nullopt;
    std::vector<RGB> out(static_cast<std::size_t>(columns) * 2 * rows);
    const bool transparent = image->alpha.size() == out.size();
    // Premultiplied colour plus the background's share: c + (255 − a) · bg / 255.
    auto over = [](std::uint8_t colour, std::uint8_t alpha, std::uint8_t bg) {
        return static_cast<std::uint8_t>(std::min(255, colour + ((255 - alpha) * bg + 127) / 255));
    };
    for (std::size_t i = 0; i < out.size(); ++i) {
        const std::uint8_t* c = &image->rgb[3 * i];
        if (transparent) {
            const std::uint8_t a = image->alpha[i];
            out[i] = RGB{over(c[0], a, background.r), over(c[1], a, background.g),
                         over(c[2], a, background.b)};
        } else {
            out[i] = RGB{c[0], c[1], c[2]};
        }
    }
    return out;
}

} // namespace trovan
