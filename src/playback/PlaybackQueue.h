// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "config/RepeatMode.h"

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace trovan {

// The play order: the paths as the user chose them, a permutation of their
// indices that playback follows, and where in it we are.
struct PlaybackQueue {
    std::vector<std::string> paths;
    std::vector<int> order;      // each index of `paths` exactly once
    std::optional<int> position; // index into `order`; absent when ended or never started
    bool shuffle = false;
    RepeatMode repeatMode = RepeatMode::off;
    // Milliseconds per entry of `paths` (0: unknown), for the time left in the queue
    // view; kUnlooked until the owner looks it up. Kept beside `paths` by every edit.
    std::vector<int64_t> durations;
    static constexpr int64_t kUnlooked = -1;

    bool operator==(const PlaybackQueue&) const = default;

    // Replaces the paths; natural order; position = startAt when valid, else absent.
    // The order is reshuffled at once when shuffle is on.
    void replace(std::vector<std::string> newPaths, int startAt, std::mt19937_64& rng);

    std::optional<std::string> currentPath() const;
    std::optional<std::string> pathAt(std::optional<int> at) const;
    // The position after `from` in play order, by the same rules as advance; none at
    // the end of a queue that does not repeat.
    std::optional<int> following(std::optional<int> from, bool automatic) const;
    // The next path to play, or none. `automatic` is the end of a track (repeat-one
    // replays it; repeat off ends the queue), otherwise the user's next-track action.
    std::optional<std::string> advance(bool automatic);
    std::optional<std::string> retreat();
    // Keeps the current track current and first; every other one follows at random.
    void reshuffle(std::mt19937_64& rng);
    void setShuffle(bool on, std::mt19937_64& rng);

    // Editing, by place in play order (what the queue view shows). The current track
    // stays current through every edit.
    // Puts `added` before the entry at `at` (at the end when `at` is the count). With
    // shuffle off the user's order is the play order, so they go there too; with it on
    // they join the end of the user's order and only the play order has them at `at`.
    void insert(std::size_t at, const std::vector<std::string>& added);
    // Drops the entry at `at`; false when there is none.
    bool remove(std::size_t at);
    // Swaps the entry at `at` with its neighbour `delta` (±1) away; false at the ends.
    bool move(std::size_t at, int delta);
    // Drops every entry after the current one (all of them when none is current);
    // returns how many went.
    std::size_t clearAfterCurrent();
};

} // namespace trovan
