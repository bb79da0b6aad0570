// SPDX-License-Identifier: GPL-3.0-or-later
// Random bytes in random read splits: the decoder must never crash, every text it
// produces must be valid UTF-8, and (for input without a paste start, with no read
// ending right after an ESC byte) the events must not depend on how reads are split.

#include "terminal/InputDecoder.h"
#include "text/Text.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

using namespace trovan;

namespace {

std::uint64_t nextRandom(std::uint64_t& state) {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

void checkWellFormed(const std::vector<InputEvent>& events) {
    for (const auto& e : events) {
        if (const auto* k = std::get_if<Key>(&e)) {
            if (k->kind == Key::Kind::char_ && (k->text.empty() || !text::isValidUtf8(k->text)))
                std::abort();
            if (k->kind == Key::Kind::function && (k->number < 1 || k->number > 12)) std::abort();
        } else if (const auto* p = std::get_if<Paste>(&e)) {
            if (!text::isValidUtf8(p->text)) std::abort();
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 8) return 0;
    std::uint64_t seed;
    std::memcpy(&seed, data, 8);
    const std::string_view input(reinterpret_cast<const char*>(data) + 8, size - 8);

    InputDecoder whole;
    std::vector<InputEvent> expected = whole.decode(input);
    checkWellFormed(expected);

    // The same bytes in reads of 1 to 16 bytes, never ending a read right after an ESC
    // unless it is the last one.
    InputDecoder split;
    std::vector<InputEvent> got;
    std::size_t pos = 0;
    while (pos < input.size()) {
        std::size_t n = 1 + nextRandom(seed) % 16;
        n = std::min(n, input.size() - pos);
        while (pos + n < input.size() && input[pos + n - 1] == '\x1b')
            ++n;
        auto events = split.decode(input.substr(pos, n));
        checkWellFormed(events);
        got.insert(got.end(), events.begin(), events.end());
        pos += n;
    }

    const bool comparable = input.find("\x1b[200~") == std::string_view::npos;
    if (comparable && (got != expected || split.pending != whole.pending)) std::abort();
    return 0;
}
