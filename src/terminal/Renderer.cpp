// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/Renderer.h"

#include "terminal/SixelEncoder.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <vector>
#include <zlib.h>

namespace trovan {

namespace {

void appendInt(std::string& out, int v) {
    char buf[16];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    (void)ec;
    out.append(buf, end);
}

void appendMove(std::string& out, int x, int y) {
    out += "\x1b[";
    appendInt(out, y + 1);
    out += ';';
    appendInt(out, x + 1);
    out += 'H';
}

int level(int v) {
    if (v < 48) return 0;
    if (v < 115) return 1;
    return (v - 35) / 40;
}

} // namespace

int Renderer::cubeIndex(RGB rgb) {
    return 16 + 36 * level(rgb.r) + 6 * level(rgb.g) + level(rgb.b);
}

void Renderer::appendColor(std::string& out, RGB rgb, bool foreground) const {
    out += foreground ? "38" : "48";
    if (truecolor) {
        out += ";2;";
        appendInt(out, rgb.r);
        out += ';';
        appendInt(out, rgb.g);
        out += ';';
        appendInt(out, rgb.b);
    } else {
        out += ";5;";
        appendInt(out, cubeIndex(rgb));
    }
}

std::string Renderer::color(RGB rgb, bool foreground) const {
    std::string out;
    appendColor(out, rgb, foreground);
    return out;
}

void Renderer::appendStyle(std::string& out, const Style& style) const {
    out += "\x1b[0";
    if (style.bold) out += ";1";
    if (style.underline) out += ";4";
    out += ';';
    appendColor(out, style.fg, true);
    out += ';';
    appendColor(out, style.bg, false);
    out += 'm';
}

namespace {

// What kitty keeps of our pictures before the oldest unused ones are deleted.
constexpr std::size_t kKittyBudget = 256u << 20;
constexpr std::size_t kSixelBudget = 64u << 20;

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64(const std::uint8_t* data, std::size_t n) {
    std::string out;
    out.reserve((n + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < n; i += 3) {
        const std::uint32_t v = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
        out += kBase64[(v >> 18) & 63];
        out += kBase64[(v >> 12) & 63];
        out += kBase64[(v >> 6) & 63];
        out += kBase64[v & 63];
    }
    if (i < n) {
        const std::uint32_t v = (data[i] << 16) | (i + 1 < n ? data[i + 1] << 8 : 0);
        out += kBase64[(v >> 18) & 63];
        out += kBase64[(v >> 12) & 63];
        out += i + 1 < n ? kBase64[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

// Placement ids tell apart several placements of one picture: the n-th one on screen
// gets n.
std::vector<int> placementIds(const std::vector<ImagePlacement>& images) {
    std::vector<int> ids(images.size());
    for (std::size_t i = 0; i < images.size(); ++i) {
        int n = 1;
        for (std::size_t j = 0; j < i; ++j)
            if (images[j].image == images[i].image) ++n;
        ids[i] = n;
    }
    return ids;
}

bool samePicture(const ImagePlacement& a, const ImagePlacement& b) {
    return a.image && b.image && a.image->serial == b.image->serial;
}

} // namespace

void Renderer::setGraphics(GraphicsProtocol protocol, bool passthrough, int colorRegisters) {
    if (protocol == graphics_ && passthrough == passthrough_ && colorRegisters == colorRegisters_)
        return;
    graphics_ = protocol;
    passthrough_ = passthrough;
    colorRegisters_ = colorRegisters;
    sixels_.clear();
    sixelBytes_ = 0;
    // Whatever was shown before goes with the next full frame.
    front.reset();
}

void Renderer::forgetImages() {
    kitty_.clear();
    kittyBytes_ = 0;
    front.reset();
}

std::string Renderer::leaveSequence() const {
    if (graphics_ != GraphicsProtocol::kitty) return {};
    std::string out;
    std::string command = "\x1b_Ga=d,d=R,x=";
    appendInt(command, static_cast<int>(kFirstImageId));
    command += ",y=";
    appendInt(command, static_cast<int>(kFirstImageId + kImageIds - 1));
    command += ",q=2\x1b\\";
    appendCommand(out, command);
    return out;
}

void Renderer::appendCommand(std::string& out, std::string_view command) const {
    if (!passthrough_) {
        out += command;
        return;
    }
    out += "\x1bPtmux;";
    for (char c : command) {
        if (c == '\x1b') out += '\x1b';
        out += c;
    }
    out += "\x1b\\";
}

void Renderer::transmit(std::string& out, const PixelImage& image, std::uint32_t id) {
    const auto* raw = image.rgb.data();
    const std::size_t size = image.rgb.size();
    std::vector<std::uint8_t> packed(compressBound(static_cast<uLong>(size)));
    uLongf packedSize = static_cast<uLongf>(packed.size());
    const bool compressed =
        compress2(packed.data(), &packedSize, raw, static_cast<uLong>(size), 6) == Z_OK;
    const std::string data = compressed ? base64(packed.data(), packedSize) : base64(raw, size);
    constexpr std::size_t kChunk = 4096;
    for (std::size_t at = 0; at < data.size() || at == 0; at += kChunk) {
        const bool last = at + kChunk >= data.size();
        std::string command = "\x1b_G";
        if (at == 0) {
            command += "a=t,t=d,f=24,s=";
            appendInt(command, image.width);
            command += ",v=";
            appendInt(command, image.height);
            command += ",i=";
            appendInt(command, static_cast<int>(id));
            if (compressed) command += ",o=z";
            command += ",q=2,";
        }
        command += last ? "m=0;" : "m=1;";
        command.append(data, at, std::min(kChunk, data.size() - std::min(at, data.size())));
        command += "\x1b\\";
        appendCommand(out, command);
        if (data.empty()) break;
    }
    ++transmitted_;
}

void Renderer::kittyBefore(std::string& out, const std::vector<ImagePlacement>& oldImages,
                           const std::vector<ImagePlacement>& newImages, bool full) {
    if (full) {
        // A cleared screen keeps kitty's placements: take every one of ours away.
        appendCommand(out, "\x1b_Ga=d,d=a,q=2\x1b\\");
        return;
    }
    const auto oldIds = placementIds(oldImages), newIds = placementIds(newImages);
    for (std::size_t i = 0; i < oldImages.size(); ++i) {
        bool kept = false;
        for (std::size_t j = 0; j < newImages.size() && !kept; ++j)
            kept = samePicture(oldImages[i], newImages[j]) && oldIds[i] == newIds[j];
        const auto it = kitty_.find(oldImages[i].image->serial);
        if (kept || it == kitty_.end()) continue;
        std::string command = "\x1b_Ga=d,d=i,i=";
        appendInt(command, static_cast<int>(it->second.id));
        command += ",p=";
        appendInt(command, oldIds[i]);
        command += ",q=2\x1b\\";
        appendCommand(out, command);
    }
}

void Renderer::kittyAfter(std::string& out, const std::vector<ImagePlacement>& oldImages,
                          const std::vector<ImagePlacement>& newImages) {
    const auto oldIds = placementIds(oldImages), newIds = placementIds(newImages);
    for (std::size_t j = 0; j < newImages.size(); ++j) {
        const ImagePlacement& p = newImages[j];
        const PixelImage& image = *p.image;
        auto it = kitty_.find(image.serial);
        if (it == kitty_.end()) {
            KittyImage entry;
            entry.id = kFirstImageId + nextId_;
            nextId_ = (nextId_ + 1) % kImageIds;
            entry.bytes = image.rgb.size();
            transmit(out, image, entry.id);
            kittyBytes_ += entry.bytes;
            it = kitty_.emplace(image.serial, entry).first;
        }
        it->second.lastUse = frame_;
        bool same = false;
        for (std::size_t i = 0; i < oldImages.size() && !same; ++i)
            same = oldImages[i] == p && oldIds[i] == newIds[j];
        if (same) continue;
        // Re-placing with the same ids moves the picture.
        const int cw = p.imageColumns > 0 ? image.width / p.imageColumns : 0;
        const int ch = p.imageRows > 0 ? image.height / p.imageRows : 0;
        appendMove(out, p.x, p.y);
        std::string command = "\x1b_Ga=p,i=";
        appendInt(command, static_cast<int>(it->second.id));
        command += ",p=";
        appendInt(command, newIds[j]);
        command += ",x=";
        appendInt(command, p.firstColumn * cw);
        command += ",y=";
        appendInt(command, p.firstRow * ch);
        command += ",w=";
        appendInt(command, std::min(p.columns * cw, image.width - p.firstColumn * cw));
        command += ",h=";
        appendInt(command, std::min(p.rows * ch, image.height - p.firstRow * ch));
        command += ",c=";
        appendInt(command, p.columns);
        command += ",r=";
        appendInt(command, p.rows);
        command += ",C=1,q=2\x1b\\";
        appendCommand(out, command);
    }
    // The oldest pictures not on screen go once kitty holds too much of ours.
    while (kittyBytes_ > kKittyBudget) {
        auto oldest = kitty_.end();
        for (auto it = kitty_.begin(); it != kitty_.end(); ++it)
            if (it->second.lastUse != frame_ &&
                (oldest == kitty_.end() || it->second.lastUse < oldest->second.lastUse))
                oldest = it;
        if (oldest == kitty_.end()) break;
        std::string command = "\x1b_Ga=d,d=I,i=";
        appendInt(command, static_cast<int>(oldest->second.id));
        command += ",q=2\x1b\\";
        appendCommand(out, command);
        kittyBytes_ -= oldest->second.bytes;
        kitty_.erase(oldest);
    }
}

void Renderer::appendHalfBlocks(std::string& out, const ImagePlacement& p, int row) const {
    const PixelImage& image = *p.image;
    const int cw = p.imageColumns > 0 ? image.width / p.imageColumns : 0;
    const int ch = p.imageRows > 0 ? image.height / p.imageRows : 0;
    if (cw < 1 || ch < 1) return;
    // The mean colour of a block of the picture's pixels.
    auto mean = [&](int x0, int y0, int w, int h) {
        unsigned sum[3] = {0, 0, 0};
        const int n = std::max(1, w * h);
        for (int y = y0; y < y0 + h; ++y)
            for (int x = x0; x < x0 + w; ++x)
                for (int k = 0; k < 3; ++k)
                    sum[k] += image.rgb[(static_cast<std::size_t>(y) * image.width + x) * 3 + k];
        return RGB{static_cast<std::uint8_t>(sum[0] / n), static_cast<std::uint8_t>(sum[1] / n),
                   static_cast<std::uint8_t>(sum[2] / n)};
    };
    const int y0 = (p.firstRow + row) * ch;
    appendMove(out, p.x, p.y + row);
    for (int c = 0; c < p.columns; ++c) {
        const int x0 = (p.firstColumn + c) * cw;
        appendStyle(out, Style{mean(x0, y0, cw, ch / 2), mean(x0, y0 + ch / 2, cw, ch - ch / 2),
                               false, false});
        out += "\xE2\x96\x80"; // ▀
    }
}

const std::string& Renderer::sixel(const ImagePlacement& p) {
    const PixelImage& image = *p.image;
    const SixelKey key{image.serial, p.firstRow, p.rows, p.firstColumn, p.columns};
    auto it = sixels_.find(key);
    if (it == sixels_.end()) {
        const int ch = p.imageRows > 0 ? image.height / p.imageRows : 0;
        // The exact height: the unused rows of the last band are left unset, so they
        // show what is under them.
        const int height = p.rows * ch;
        std::string data;
        if (p.firstColumn == 0 && p.columns == p.imageColumns) {
            data = SixelEncoder::encode(image, p.firstRow * ch, height, colorRegisters_);
        } else {
            const int cw = p.imageColumns > 0 ? image.width / p.imageColumns : 0;
            PixelImage part;
            part.width = std::min(p.columns * cw, image.width - p.firstColumn * cw);
            part.height = image.height;
            if (part.width > 0) {
                part.rgb.resize(static_cast<std::size_t>(part.width) * part.height * 3);
                for (int y = 0; y < image.height; ++y)
                    std::memcpy(&part.rgb[static_cast<std::size_t>(y) * part.width * 3],
                                &image.rgb[(static_cast<std::size_t>(y) * image.width +
                                            static_cast<std::size_t>(p.firstColumn * cw)) *
                                           3],
                                static_cast<std::size_t>(part.width) * 3);
                data = SixelEncoder::encode(part, p.firstRow * ch, height, colorRegisters_);
            }
        }
        sixelBytes_ += data.size();
        it = sixels_.emplace(key, SixelEntry{std::move(data), 0}).first;
        while (sixelBytes_ > kSixelBudget && sixels_.size() > 1) {
            auto oldest = sixels_.end();
            for (auto e = sixels_.begin(); e != sixels_.end(); ++e)
                if (e != it &&
                    (oldest == sixels_.end() || e->second.lastUse < oldest->second.lastUse))
                    oldest = e;
            sixelBytes_ -= oldest->second.data.size();
            sixels_.erase(oldest);
        }
    }
    it->second.lastUse = frame_;
    return it->second.data;
}

std::string Renderer::render(ScreenBuffer buffer, std::optional<CursorPos> cursor) {
    ++frame_;
    std::string out;
    out.reserve(4096);
    out += "\x1b[?2026h";

    const bool full =
        !front || front->width() != buffer.width() || front->height() != buffer.height();
    if (full) out += "\x1b[0m\x1b[2J";

    const int w = buffer.width(), h = buffer.height();
    const Cell* cells = buffer.cells().data();
    const Cell* old = full ? nullptr : front->cells().data();

    static const std::vector<ImagePlacement> kNone;
    const bool images = graphics_ != GraphicsProtocol::none;
    const auto& newImages = images ? buffer.images() : kNone;
    const auto& oldImages = images && !full ? front->images() : kNone;

    // Sixel pictures are pixels in the terminal's grid: the cells a picture leaves are
    // erased and drawn again, and a picture whose cells were drawn is drawn again over
    // them.
    std::vector<char> forced, written;
    if (graphics_ == GraphicsProtocol::sixel && (!newImages.empty() || !oldImages.empty())) {
        forced.assign(static_cast<std::size_t>(w) * static_cast<std::size_t>(h), 0);
        written.assign(forced.size(), 0);
        for (const auto& p : oldImages) {
            if (std::find(newImages.begin(), newImages.end(), p) != newImages.end()) continue;
            const int x1 = std::min(p.x + p.columns, w), y1 = std::min(p.y + p.rows, h);
            for (int y = std::max(p.y, 0); y < y1; ++y) {
                if (x1 <= p.x) continue;
                appendMove(out, p.x, y);
                out += "\x1b[0m\x1b[";
                appendInt(out, x1 - p.x);
                out += 'X';
                for (int x = std::max(p.x, 0); x < x1; ++x)
                    forced[static_cast<std::size_t>(y) * w + x] = 1;
            }
        }
    } else if (graphics_ == GraphicsProtocol::kitty) {
        kittyBefore(out, oldImages, newImages, full);
    }

    bool cursorKnown = false;
    int cx = 0, cy = 0;
    bool styled = false;
    Style last{};

    for (int y = 0; y < h; ++y) {
        const Cell* row = cells + static_cast<std::ptrdiff_t>(y) * w;
        const Cell* oldRow = old ? old + static_cast<std::ptrdiff_t>(y) * w : nullptr;
        const char* forcedRow =
            forced.empty() ? nullptr : forced.data() + static_cast<std::ptrdiff_t>(y) * w;
        const bool anyForced = forcedRow && std::find(forcedRow, forcedRow + w, 1) != forcedRow + w;
        // Cells have no padding, so an untouched row is one memory comparison.
        if (oldRow && !anyForced &&
            std::memcmp(row, oldRow, sizeof(Cell) * static_cast<std::size_t>(w)) == 0)
            continue;
        for (int x = 0; x < w; ++x) {
            const Cell& c = row[x];
            if (c.ch.empty()) continue;
            if (oldRow && c == oldRow[x] && !(anyForced && forcedRow[x])) {
                // A wide character whose right half changed style is drawn again.
                const bool tailChanged =
                    x + 1 < w && row[x + 1].ch.empty() && !(row[x + 1] == oldRow[x + 1]);
                if (!tailChanged) continue;
            }
            if (!cursorKnown || cx != x || cy != y) appendMove(out, x, y);
            if (!styled || !(c.style == last)) {
                appendStyle(out, c.style);
                last = c.style;
                styled = true;
            }
            out += c.ch.view();
            if (!written.empty()) {
                written[static_cast<std::size_t>(y) * w + x] = 1;
                if (c.ch.width() == 2 && x + 1 < w)
                    written[static_cast<std::size_t>(y) * w + x + 1] = 1;
            }
            cursorKnown = true;
            cx = x + c.ch.width();
            cy = y;
        }
    }

    if (graphics_ == GraphicsProtocol::kitty) {
        kittyAfter(out, oldImages, newImages);
    } else if (graphics_ == GraphicsProtocol::sixel && !newImages.empty()) {
        bool opened = false;
        for (const auto& p : newImages) {
            bool draw = std::find(oldImages.begin(), oldImages.end(), p) == oldImages.end();
            for (int y = p.y; y < p.y + p.rows && !draw; ++y)
                for (int x = p.x; x < p.x + p.columns && !draw; ++x)
                    draw = written[static_cast<std::size_t>(y) * w + x] != 0;
            if (!draw) continue;
            // A sixel picture that reaches the last row scrolls the whole screen (xterm
            // does, whatever mode it is in): that row is drawn in half blocks instead.
            ImagePlacement upper = p;
            if (p.y + p.rows >= h) --upper.rows;
            if (upper.rows > 0) {
                const std::string& data = sixel(upper);
                if (!opened) out += "\x1b[?8452h";
                opened = true;
                appendMove(out, p.x, p.y);
                out += data;
            }
            if (upper.rows < p.rows) appendHalfBlocks(out, p, p.rows - 1);
        }
        if (opened) out += "\x1b[?8452l";
    }

    if (cursor) {
        appendMove(out, cursor->x, cursor->y);
        out += "\x1b[?25h";
    } else {
        out += "\x1b[?25l";
    }
    out += "\x1b[?2026l";
    front = std::move(buffer);
    return out;
}

} // namespace trovan
