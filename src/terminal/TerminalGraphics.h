// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <string_view>

namespace trovan {

// How pictures reach the screen: as images (kitty's graphics protocol or sixel) or as
// coloured half blocks, which every terminal shows.
enum class GraphicsProtocol { none, kitty, sixel };

// The user's choice, stored as the coverMode setting.
enum class CoverMode { automatic, kitty, sixel, blocks };

std::optional<CoverMode> coverModeFromString(std::string_view text);
std::string_view toString(CoverMode mode);

// What the terminal showed it can do when asked at start.
struct TerminalGraphics {
    bool kitty = false;       // answered the kitty graphics query with OK
    bool sixel = false;       // listed sixel (4) in its device attributes
    bool passthrough = false; // inside tmux: image commands go through its passthrough
    int cellWidth = 0;        // pixels of one cell, 0 when unknown
    int cellHeight = 0;
    int colorRegisters = 0; // sixel colour registers it reported, 0 when it did not say

    bool operator==(const TerminalGraphics&) const = default;
};

// What is drawn with, given what the terminal can do and what the user asked for. Images
// need a known cell size; a forced mode is taken at its word otherwise.
struct GraphicsChoice {
    GraphicsProtocol protocol = GraphicsProtocol::none;
    bool passthrough = false;
    int cellWidth = 0;
    int cellHeight = 0;
    int colorRegisters = 256;

    bool operator==(const GraphicsChoice&) const = default;
};

GraphicsChoice chooseGraphics(const TerminalGraphics& terminal, CoverMode mode);

} // namespace trovan
