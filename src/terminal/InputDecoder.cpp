// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/InputDecoder.h"

#include "text/Text.h"

#include <algorithm>
#include <climits>
#include <cstdint>

namespace trovan {

namespace {

using Kind = Key::Kind;

// A decimal integer with an optional sign; absent when the text is anything else or
// does not fit in 64 bits.
std::optional<long long> parseInt(std::string_view s) {
    std::size_t i = 0;
    bool negative = false;
    if (!s.empty() && (s[0] == '+' || s[0] == '-')) {
        negative = s[0] == '-';
        i = 1;
    }
    if (i == s.size()) return std::nullopt;
    unsigned long long v = 0;
    const unsigned long long limit = negative ? 9223372036854775808ULL : 9223372036854775807ULL;
    for (; i < s.size(); ++i) {
        if (s[i] < '0' || s[i] > '9') return std::nullopt;
        unsigned digit = static_cast<unsigned>(s[i] - '0');
        if (v > (limit - digit) / 10) return std::nullopt;
        v = v * 10 + digit;
    }
    if (negative) return v == 9223372036854775808ULL ? LLONG_MIN : -static_cast<long long>(v);
    return static_cast<long long>(v);
}

std::vector<std::string_view> splitNonEmpty(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    std::size_t start = 0;
    while (start <= s.size()) {
        std::size_t end = s.find(sep, start);
        if (end == std::string_view::npos) end = s.size();
        if (end > start) out.push_back(s.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

int clampToInt(long long v) {
    if (v < INT_MIN) return INT_MIN;
    if (v > INT_MAX) return INT_MAX;
    return static_cast<int>(v);
}

std::optional<Key> ss3(unsigned char b) {
    switch (b) {
    case 'P':
        return Key::function(1);
    case 'Q':
        return Key::function(2);
    case 'R':
        return Key::function(3);
    case 'S':
        return Key::function(4);
    case 'A':
        return Key(Kind::up);
    case 'B':
        return Key(Kind::down);
    case 'C':
        return Key(Kind::right);
    case 'D':
        return Key(Kind::left);
    case 'H':
        return Key(Kind::home);
    case 'F':
        return Key(Kind::end);
    default:
        return std::nullopt;
    }
}

std::optional<Key> tilde(long long n) {
    switch (n) {
    case 1:
    case 7:
        return Key(Kind::home);
    case 3:
        return Key(Kind::delete_);
    case 4:
    case 8:
        return Key(Kind::end);
    case 5:
        return Key(Kind::pageUp);
    case 6:
        return Key(Kind::pageDown);
    default:
        break;
    }
    if (n >= 11 && n <= 15) return Key::function(static_cast<int>(n - 10));
    if (n >= 17 && n <= 21) return Key::function(static_cast<int>(n - 11));
    if (n == 23 || n == 24) return Key::function(static_cast<int>(n - 12));
    return std::nullopt;
}

// SGR 1006 report: parameters "b;x;y" (after "<"), final "M" (press) or "m" (release).
std::optional<MouseEvent> mouse(std::string_view parameters, char final) {
    std::vector<long long> numbers;
    for (std::string_view piece : splitNonEmpty(parameters, ';')) {
        if (auto v = parseInt(piece)) numbers.push_back(*v);
    }
    if (numbers.size() != 3) return std::nullopt;
    MouseEvent m;
    // Terminal coordinates are 1-based.
    m.x = clampToInt(numbers[1] == LLONG_MIN ? LLONG_MIN : numbers[1] - 1);
    m.y = clampToInt(numbers[2] == LLONG_MIN ? LLONG_MIN : numbers[2] - 1);
    switch (numbers[0]) {
    case 0:
        m.kind = final == 'M' ? MouseEvent::Kind::press : MouseEvent::Kind::release;
        break;
    case 32:
        m.kind = MouseEvent::Kind::drag;
        break;
    case 64:
        m.kind = MouseEvent::Kind::scrollUp;
        break;
    case 65:
        m.kind = MouseEvent::Kind::scrollDown;
        break;
    default:
        return std::nullopt; // other buttons, modifiers, plain motion
    }
    return m;
}

std::size_t utf8Length(unsigned char lead) {
    if (lead < 128) return 1;
    if (lead < 224) return 2; // stray continuation bytes count as two-byte leads
    if (lead < 240) return 3;
    return 4;
}

} // namespace

std::size_t InputDecoder::markerPrefixAtEnd(std::string_view tail) const {
    const std::size_t longest = std::min(tail.size(), pasteEnd.size() - 1);
    for (std::size_t n = longest; n > 0; --n)
        if (tail.substr(tail.size() - n) == std::string_view(pasteEnd).substr(0, n)) return n;
    return 0;
}

void InputDecoder::appendPaste(std::string_view bytes) {
    const std::size_t room = kPasteLimit - std::min(kPasteLimit, pasteBuffer->size());
    if (bytes.size() > room) pasteTruncated_ = true;
    pasteBuffer->append(bytes.substr(0, room));
}

std::string_view InputDecoder::trimPartialUtf8(std::string_view text) const {
    if (!pasteTruncated_) return text;
    // A cut paste may end inside a character: drop its first bytes rather than show a
    // replacement character.
    std::size_t lead = text.size();
    for (std::size_t back = 0; back < 4 && lead > 0; ++back) {
        const auto c = static_cast<unsigned char>(text[lead - 1]);
        --lead;
        if ((c & 0xC0) != 0x80) {
            if (lead + utf8Length(c) > text.size()) return text.substr(0, lead);
            break;
        }
    }
    return text;
}

std::vector<InputEvent> InputDecoder::decode(std::string_view bytes) {
    std::vector<InputEvent> events;
    pending.append(bytes);
    if (pending.empty()) return events;

    std::size_t p = 0;
    while (p < pending.size()) {
        if (pasteBuffer) {
            std::size_t q = pending.find(pasteEnd, p);
            if (q == std::string::npos) {
                // The end marker may be arriving in pieces: its start stays pending.
                const std::size_t keep = markerPrefixAtEnd(std::string_view(pending).substr(p));
                appendPaste(std::string_view(pending).substr(p, pending.size() - p - keep));
                p = pending.size() - keep;
                break;
            }
            appendPaste(std::string_view(pending).substr(p, q - p));
            events.emplace_back(Paste{text::repairUtf8(trimPartialUtf8(*pasteBuffer))});
            pasteBuffer.reset();
            pasteTruncated_ = false;
            p = q + pasteEnd.size();
            continue;
        }
        Step step = decodeOne(p);
        if (step.outcome == Outcome::incomplete) break;
        if (step.outcome == Outcome::event) events.push_back(std::move(step.event));
        p += step.consumed;
    }
    pending.erase(0, p);
    return events;
}

InputDecoder::Step InputDecoder::decodeOne(std::size_t p) {
    const auto b = static_cast<unsigned char>(pending[p]);
    const std::size_t available = pending.size() - p;
    auto key = [](Key k, std::size_t n) {
        return Step{Outcome::event, n, InputEvent(std::move(k))};
    };

    switch (b) {
    case 13:
    case 10:
        return key(Kind::enter, 1);
    case 127:
    case 8:
        return key(Kind::backspace, 1);
    case 9:
        return key(Kind::tab, 1);
    case 27:
        if (available >= 2 && pending[p + 1] == 'O') {
            if (available < 3) return Step{Outcome::incomplete};
            if (auto k = ss3(static_cast<unsigned char>(pending[p + 2]))) return key(*k, 3);
            return Step{Outcome::none, 3};
        }
        if (available >= 2 && pending[p + 1] == '[') return decodeCSI(p);
        // A kitty graphics reply that came after the start-up probe stopped waiting.
        // The decision looks at the first kLongestReply bytes only, and waits for the
        // third byte, so it does not depend on how the reply was split into reads.
        if (available == 2 && pending[p + 1] == '_') return Step{Outcome::incomplete};
        if (available >= 3 && pending[p + 1] == '_' && pending[p + 2] == 'G') {
            const std::string_view window =
                std::string_view(pending).substr(p, std::min(available, kLongestReply));
            const std::size_t st = window.find("\x1b\\", 3);
            if (st != std::string_view::npos) return Step{Outcome::none, st + 2};
            if (available < kLongestReply) return Step{Outcome::incomplete};
        }
        return key(Kind::escape, 1);
    default:
        break;
    }
    if (b >= 1 && b <= 26) return key(Key::ctrl(static_cast<char>(b | 96)), 1);
    if (b < 32) return Step{Outcome::none, 1};

    if (b < 128) return key(Key::character(std::string(1, static_cast<char>(b))), 1);
    const std::size_t n = utf8Length(b);
    if (available < n) return Step{Outcome::incomplete};
    std::string decoded = text::repairUtf8(std::string_view(pending).substr(p, n));
    text::Graphemes clusters(decoded);
    std::string_view first;
    if (!clusters.next(first)) return Step{Outcome::none, n};
    return key(Key::character(std::string(first)), n);
}

InputDecoder::Step InputDecoder::decodeCSI(std::size_t p) {
    std::size_t q = std::max(p + 2, p + csiScanFrom_);
    while (q < pending.size()) {
        const auto c = static_cast<unsigned char>(pending[q]);
        if (c >= 64 && c <= 126) break;
        ++q;
    }
    if (q >= pending.size()) {
        csiScanFrom_ = pending.size() - p;
        return Step{Outcome::incomplete};
    }
    csiScanFrom_ = 0;

    const std::size_t consumed = q - p + 1;
    const char final = pending[q];
    const std::string params = text::repairUtf8(std::string_view(pending).substr(p + 2, q - p - 2));

    if (!params.empty() && params[0] == '<') {
        if (auto m = mouse(std::string_view(params).substr(1), final))
            return Step{Outcome::event, consumed, InputEvent(*m)};
        return Step{Outcome::none, consumed};
    }
    if (params == "200" && final == '~') {
        pasteBuffer.emplace();
        return Step{Outcome::none, consumed};
    }

    std::vector<long long> numbers;
    for (std::string_view piece : splitNonEmpty(params, ';'))
        numbers.push_back(parseInt(piece).value_or(0));
    const bool shift =
        numbers.size() >= 2 && ((static_cast<unsigned long long>(numbers[1]) - 1ULL) & 1ULL) != 0;

    std::optional<Key> k;
    switch (final) {
    case 'A':
        k = Key(shift ? Kind::shiftUp : Kind::up);
        break;
    case 'B':
        k = Key(shift ? Kind::shiftDown : Kind::down);
        break;
    case 'C':
        k = Key(Kind::right);
        break;
    case 'D':
        k = Key(Kind::left);
        break;
    case 'H':
        k = Key(Kind::home);
        break;
    case 'F':
        k = Key(Kind::end);
        break;
    case 'Z':
        k = Key(Kind::backTab);
        break;
    case '~':
        k = tilde(numbers.empty() ? 0 : numbers[0]);
        break;
    default:
        break;
    }
    if (k) return Step{Outcome::event, consumed, InputEvent(std::move(*k))};
    return Step{Outcome::none, consumed};
}

} // namespace trovan
