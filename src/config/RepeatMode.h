// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <string_view>

namespace trovan {

enum class RepeatMode { off, all, one };

// Stored form: "off", "all", "one".
constexpr std::string_view toString(RepeatMode m) {
    switch (m) {
    case RepeatMode::all:
        return "all";
    case RepeatMode::one:
        return "one";
    case RepeatMode::off:
        break;
    }
    return "off";
}

constexpr std::optional<RepeatMode> repeatModeFromString(std::string_view s) {
    if (s == "off") return RepeatMode::off;
    if (s == "all") return RepeatMode::all;
    if (s == "one") return RepeatMode::one;
    return std::nullopt;
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
