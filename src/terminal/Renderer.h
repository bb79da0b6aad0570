// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "terminal/ScreenBuffer.h"
#include "terminal/Style.h"
#include "terminal/TerminalGraphics.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>

namespace trovan {

// Screen position of the text cursor.
struct CursorPos {
    int x = 0;
    int y = 0;

    bool operator==(const CursorPos&) const = default;
};

// Turns frames into the bytes that bring the terminal from the previous frame to the
// new one: only changed cells, few cursor moves, a style restated only when it changes,
// all inside a synchronized update. The frame's pictures go out in the same bytes: with
// kitty's protocol each picture is sent once and then placed, moved and taken away by
// id; sixel pictures are encoded once per size and cut, drawn after the cells under
// them, and the cells they leave are erased and drawn again.
class Renderer {
public:
    // The frame last rendered; clear it to force a full redraw.
    std::optional<ScreenBuffer> front;
    // 24-bit colour sequences, else indices of the 256-colour cube.
    bool truecolor = true;

    // How the frame's pictures are shown; with none they are left out (their cells
    // still are drawn).
    void setGraphics(GraphicsProtocol protocol, bool passthrough = false, int colorRegisters = 256);
    GraphicsProtocol graphics() const { return graphics_; }
    // The terminal no longer holds what was sent to it (the session was left, which
    // deletes our kitty pictures): everything is sent again.
    void forgetImages();
    // Bytes that remove every kitty picture this program sent (with their data), for
    // leaving the session; empty in the other modes.
    std::string leaveSequence() const;

    // Pictures sent with kitty's protocol so far, counting each sending.
    std::uint64_t imagesTransmitted() const { return transmitted_; }

    // Bytes for this frame; `buffer` becomes the new front.
    std::string render(ScreenBuffer buffer, std::optional<CursorPos> cursor);

    // SGR parameters for one colour, e.g. "38;2;122;162;247" or "48;5;16".
    std::string color(RGB rgb, bool foreground) const;

    // Index in the 6x6x6 cube of the 256-colour palette.
    static int cubeIndex(RGB rgb);

    // Kitty picture ids are taken from this range.
    static constexpr std::uint32_t kFirstImageId = 0x54520000;
    static constexpr std::uint32_t kImageIds = 0x10000;

private:
    struct KittyImage {
        std::uint32_t id = 0;
        std::uint64_t lastUse = 0;
        std::size_t bytes = 0;
    };
    struct SixelEntry {
        std::string data;
        std::uint64_t lastUse = 0;
    };
    using SixelKey = std::tuple<std::uint64_t, int, int, int, int>;

    void appendColor(std::string& out, RGB rgb, bool foreground) const;
    void appendStyle(std::string& out, const Style& style) const;
    // Wraps one escape sequence for tmux's passthrough when that is on.
    void appendCommand(std::string& out, std::string_view command) const;
    void kittyBefore(std::string& out, const std::vector<ImagePlacement>& oldImages,
                     const std::vector<ImagePlacement>& newImages, bool full);
    void kittyAfter(std::string& out, const std::vector<ImagePlacement>& oldImages,
                    const std::vector<ImagePlacement>& newImages);
    void transmit(std::string& out, const PixelImage& image, std::uint32_t id);
    const std::string& sixel(const ImagePlacement& p);
    // One cell row of a placed picture as half blocks, two pixel rows per cell.
    void appendHalfBlocks(std::string& out, const ImagePlacement& p, int row) const;

    GraphicsProtocol graphics_ = GraphicsProtocol::none;
    bool passthrough_ = false;
    int colorRegisters_ = 256;
    std::uint64_t frame_ = 0;
    std::uint64_t transmitted_ = 0;
    std::uint32_t nextId_ = 0;
    std::size_t kittyBytes_ = 0;
    std::unordered_map<std::uint64_t, KittyImage> kitty_; // by picture serial
    std::map<SixelKey, SixelEntry> sixels_;
    std::size_t sixelBytes_ = 0;
};

} // namespace trovan
