// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "terminal/InputEvent.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trovan {

// Turns raw terminal bytes (raw mode, SGR mouse, bracketed paste) into events. An
// incomplete escape sequence or UTF-8 character waits in `pending` for the next read;
// a lone ESC at the end of a read is the Escape key at once, never a timeout. A paste
// keeps its first kPasteLimit bytes; the rest is read and dropped up to the end marker.
class InputDecoder {
public:
    static constexpr std::size_t kPasteLimit = 256 * 1024;
    // Terminal replies (kitty graphics) longer than this are not waited for.
    static constexpr std::size_t kLongestReply = 4096;

    std::string pending;
    std::optional<std::string> pasteBuffer;
    std::string pasteStart = "\x1b[200~";
    std::string pasteEnd = "\x1b[201~";

    // Appends `bytes` and returns every complete event in order.
    std::vector<InputEvent> decode(std::string_view bytes);

private:
    enum class Outcome { incomplete, none, event };
    struct Step {
        Outcome outcome = Outcome::none;
        std::size_t consumed = 0;
        InputEvent event{};
    };

    Step decodeOne(std::size_t p);
    Step decodeCSI(std::size_t p);
    // How many bytes at the end of `tail` could start the paste end marker.
    std::size_t markerPrefixAtEnd(std::string_view tail) const;
    void appendPaste(std::string_view bytes);
    std::string_view trimPartialUtf8(std::string_view text) const;

    // Where the scan for the final byte of an unfinished CSI sequence stopped, so a
    // long sequence arriving in many reads is scanned once.
    std::size_t csiScanFrom_ = 0;
    bool pasteTruncated_ = false;
};

} // namespace trovan
