// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The words a small enum is stored and typed as, both ways, from one table.

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

namespace trovan {

template <class E, std::size_t N> struct EnumNames {
    std::array<std::pair<E, std::string_view>, N> words;

    // The word for `e` (the first one for a value outside the table).
    constexpr std::string_view operator()(E e) const {
        for (const auto& [value, word] : words)
            if (value == e) return word;
        return words[0].second;
    }
    constexpr std::optional<E> parse(std::string_view s) const {
        for (const auto& [value, word] : words)
            if (word == s) return value;
        return std::nullopt;
    }
};

} // namespace trovan
