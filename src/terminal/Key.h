// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace trovan {

// One key press. Key is the key of the binding table, so it compares and hashes by
// kind and payload.
struct Key {
    // `char_` and `delete_` carry a trailing underscore only because the plain names
    // are C++ keywords.
    enum class Kind : std::uint8_t {
        char_,    // text: one printable character (grapheme), UTF-8
        ctrl,     // text: a lower-case letter "a" to "z"
        function, // number: 1 to 12
        enter,
        tab,
        backTab,
        backspace,
        delete_,
        escape,
        up,
        down,
        left,
        right,
        shiftUp,
        shiftDown,
        home,
        end,
        pageUp,
        pageDown,
    };

    Kind kind = Kind::escape;
    std::string text;
    int number = 0;

    Key() = default;
    Key(Kind k) : kind(k) {}

    static Key character(std::string c) {
        Key k(Kind::char_);
        k.text = std::move(c);
        return k;
    }
    static Key ctrl(char letter) {
        Key k(Kind::ctrl);
        k.text = std::string(1, letter);
        return k;
    }
    static Key function(int n) {
        Key k(Kind::function);
        k.number = n;
        return k;
    }

    bool operator==(const Key&) const = default;
};

} // namespace trovan

template <> struct std::hash<trovan::Key> {
    std::size_t operator()(const trovan::Key& k) const noexcept {
        std::size_t h = std::hash<std::string>{}(k.text);
        return h * 131 + static_cast<std::size_t>(k.kind) * 17 + static_cast<std::size_t>(k.number);
    }
};
