// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

namespace trovan {

// A primary-button or wheel event at a 0-based screen cell.
struct MouseEvent {
    enum class Kind : std::uint8_t { press, drag, release, scrollUp, scrollDown };

    Kind kind = Kind::press;
    int x = 0;
    int y = 0;

    bool operator==(const MouseEvent&) const = default;
};

} // namespace trovan
