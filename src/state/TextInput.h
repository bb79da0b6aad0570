// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One line of editable text with a cursor, edited like a shell line: the ":" line,
// the "/" search, the time prompt and every field of the tag form.

#include "terminal/Key.h"

#include <string>
#include <string_view>

namespace trovan {

struct TextInput {
    std::string text;
    // Position in user-perceived characters (grapheme clusters), 0…length().
    int cursor = 0;

    TextInput() = default;
    // Prefilled text puts the cursor after it.
    explicit TextInput(std::string initial);

    int length() const;

    // Inserts at the cursor; line breaks are dropped so a pasted block becomes one line.
    void insert(std::string_view s);
    // Applies one editing key. False when the key is not an editing key and the caller
    // should handle it (Enter, Esc, Tab, ↑, ↓, …).
    bool handle(const Key& key);

    void backspace();
    void deleteForward();
    void deleteWordBefore();
    void clear();

    // The text before the cursor, for placing the terminal cursor.
    std::string_view beforeCursor() const;

    bool operator==(const TextInput&) const = default;

private:
    std::size_t byteOffset(int position) const;
    void clampCursor();
};

} // namespace trovan
