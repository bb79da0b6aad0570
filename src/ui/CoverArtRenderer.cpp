#include "ui/CoverArtRenderer.h"

#include "media/ImageDecoder.h"
#include "text/Text.h"

#include <filesystem>
#include <fstream>
#include <iterator>

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

// A picture file next to the track, by the names people and rippers use most.
std::optional<std::vector<std::uint8_t>> folderImage(const std::filesystem::path& track) {
    static const char* const stems[] = {"cover", "folder", "front", "album", "albumart"};
    static const char* const exts[] = {"jpg", "jpeg", "png", "webp"};
    std::error_code ec;
    const auto dir = track.parent_path();
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
        if (!entry.is_regular_file(ec)) continue;
        const auto name = text::fold(entry.path().filename().string());
        for (const char* stem : stems)
            for (const char* ext : exts)
                if (name == std::string(stem) + "." + ext)
                    if (auto bytes = readFile(entry.path()); bytes && ImageDecoder::isImage(*bytes))
                        return bytes;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::vector<std::uint8_t>> CoverArtRenderer::imageData(const std::string& path) {
    if (auto embedded = ImageDecoder::embeddedPicture(path)) return embedded;
    return folderImage(path);
}

std::optional<std::vector<RGB>> CoverArtRenderer::pixels(std::span<const std::uint8_t> data,
                                                         int columns, int rows) {
    if (columns < 1 || rows < 1) return std::nullopt;
    auto image = ImageDecoder::decodeToFill(data, columns, 2 * rows);
    if (!image) return std::nullopt;
    std::vector<RGB> out(static_cast<std::size_t>(columns) * 2 * rows);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = RGB{image->rgb[3 * i], image->rgb[3 * i + 1], image->rgb[3 * i + 2]};
    return out;
}

} // namespace trovan
