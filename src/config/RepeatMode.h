// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "config/EnumNames.h"

namespace trovan {

enum class RepeatMode { off, all, one };

// Stored form: "off", "all", "one".
inline constexpr EnumNames<RepeatMode, 3> repeatModeNames{
    {{{RepeatMode::off, "off"}, {RepeatMode::all, "all"}, {RepeatMode::one, "one"}}}};
constexpr std::string_view toString(RepeatMode m) {
    return repeatModeNames(m);
}
constexpr std::optional<RepeatMode> repeatModeFromString(std::string_view s) {
    return repeatModeNames.parse(s);
}

// off -> all -> one -> off
constexpr RepeatMode nextRepeatMode(RepeatMode m) {
    switch (m) {
    case RepeatMode::off:
        return RepeatMode::all;
    case RepeatMode::all:
        return RepeatMode::one;
    case RepeatMode::one:
        break;
    }
    return RepeatMode::off;
}

} // namespace trovan
