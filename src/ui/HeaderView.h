// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "state/AppState.h"
#include "terminal/ScreenBuffer.h"
#include "ui/Layout.h"

#include <chrono>

namespace trovan {

// The top row: logo and name on the left; scan progress, the status message or the
// library's size on the right; a rule underneath.
class HeaderView {
public:
    static void draw(const AppState& state, const Layout& layout, ScreenBuffer& buffer,
                     StatusMessage::Clock::time_point now = StatusMessage::Clock::now());
};

} // namespace trovan
