// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "terminal/Key.h"
#include "terminal/MouseEvent.h"

#include <string>
#include <variant>

namespace trovan {

// Text that arrived as a bracketed paste.
struct Paste {
    std::string text;

    bool operator==(const Paste&) const = default;
};

// What the input decoder produces: key(Key), mouse(MouseEvent) or paste(text).
using InputEvent = std::variant<Key, MouseEvent, Paste>;

} // namespace trovan
