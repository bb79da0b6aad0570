// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The queue as kept between runs (cola.json in the data folder): the paths, the play
// order when it is shuffled, the current entry and how far into it playback was. Folders
// are written once each, so a queue of 100,000 files stays a few megabytes.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trovan {

struct SavedQueue {
    std::vector<std::string> paths; // the user's order
    std::vector<int> order;         // play order; empty: the user's order
    std::optional<int> position;    // into the play order
    double seconds = 0;             // into the current entry

    bool operator==(const SavedQueue&) const = default;
};

class QueueFile {
public:
    static constexpr int kVersion = 1;
    static constexpr const char* kName = "cola.json";

    enum class Problem { none, corrupt, newer };
    struct Decoded {
        SavedQueue queue;
        Problem problem = Problem::none;
    };

    static std::string encode(const SavedQueue& queue);
    // What can be read is kept: a bad entry is dropped, an order that does not fit the
    // entries becomes the user's order, a position outside it is dropped.
    static Decoded decode(std::string_view bytes);
};

} // namespace trovan
