// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/TextInput.h"

#include "text/Text.h"

#include <algorithm>

namespace trovan {

TextInput::TextInput(std::string initial) : text(std::move(initial)) {
    cursor = length();
}

int TextInput::length() const {
    return static_cast<int>(text::graphemeCount(text));
}

std::size_t TextInput::byteOffset(int position) const {
    if (position <= 0) return 0;
    auto bounds = text::graphemeBoundaries(text);
    std::size_t index =
        std::min<std::size_t>(static_cast<std::size_t>(position), bounds.size() - 1);
    return bounds[index];
}

void TextInput::clampCursor() {
    cursor = std::clamp(cursor, 0, length());
}

void TextInput::insert(std::string_view s) {
    // Carriage returns go too: terminals paste line ends as CR as often as LF.
    std::string clean;
    clean.reserve(s.size());
    for (char c : s)
        if (c != '\n' && c != '\r') clean += c;
    if (clean.empty()) return;
    clampCursor();
    // Count what the insertion adds rather than what it contains: a combining mark
    // typed after a letter joins that letter and adds no position.
    int before = length();
    text.insert(byteOffset(cursor), clean);
    cursor += length() - before;
    clampCursor();
}

void TextInput::backspace() {
    clampCursor();
    if (cursor < 1) return;
    std::size_t from = byteOffset(cursor - 1), to = byteOffset(cursor);
    text.erase(from, to - from);
    --cursor;
}

void TextInput::deleteForward() {
    clampCursor();
    if (cursor >= length()) return;
    std::size_t from = byteOffset(cursor), to = byteOffset(cursor + 1);
    text.erase(from, to - from);
}

void TextInput::deleteWordBefore() {
    clampCursor();
    auto bounds = text::graphemeBoundaries(text);
    auto isSpace = [&](int i) { return bounds[i + 1] - bounds[i] == 1 && text[bounds[i]] == ' '; };
    int p = cursor;
    while (p > 0 && isSpace(p - 1))
        --p;
    while (p > 0 && !isSpace(p - 1))
        --p;
    text.erase(bounds[p], bounds[cursor] - bounds[p]);
    cursor = p;
}

void TextInput::clear() {
    text.clear();
    cursor = 0;
}

std::string_view TextInput::beforeCursor() const {
    return std::string_view(text).substr(0, byteOffset(std::clamp(cursor, 0, length())));
}

bool TextInput::handle(const Key& key) {
    switch (key.kind) {
    case Key::Kind::char_:
        insert(key.text);
        return true;
    case Key::Kind::backspace:
        backspace();
        return true;
    case Key::Kind::delete_:
        deleteForward();
        return true;
    case Key::Kind::left:
        clampCursor();
        cursor = std::max(0, cursor - 1);
        return true;
    case Key::Kind::right:
        clampCursor();
        cursor = std::min(length(), cursor + 1);
        return true;
    case Key::Kind::home:
        cursor = 0;
        return true;
    case Key::Kind::end:
        cursor = length();
        return true;
    case Key::Kind::ctrl:
        if (key.text == "a") {
            cursor = 0;
            return true;
        }
        if (key.text == "e") {
            cursor = length();
            return true;
        }
        if (key.text == "u") {
            clear();
            return true;
        }
        if (key.text == "w") {
            deleteWordBefore();
            return true;
        }
        return false;
    default:
        return false;
    }
}

} // namespace trovan
