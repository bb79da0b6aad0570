// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/PlaybackQueue.h"

#include <algorithm>
#include <numeric>

namespace trovan {

void PlaybackQueue::replace(std::vector<std::string> newPaths, int startAt, std::mt19937_64& rng) {
    paths = std::move(newPaths);
    durations.assign(paths.size(), kUnlooked);
    order.resize(paths.size());
    std::iota(order.begin(), order.end(), 0);
    if (startAt >= 0 && static_cast<std::size_t>(startAt) < paths.size())
        position = startAt;
    else
        position.reset();
    if (shuffle) reshuffle(rng);
}

std::optional<std::string> PlaybackQueue::currentPath() const {
    return pathAt(position);
}

std::optional<std::string> PlaybackQueue::pathAt(std::optional<int> at) const {
    if (!at || *at < 0 || static_cast<std::size_t>(*at) >= order.size()) return std::nullopt;
    return paths[static_cast<std::size_t>(order[static_cast<std::size_t>(*at)])];
}

std::optional<int> PlaybackQueue::following(std::optional<int> from, bool automatic) const {
    if (!from) return std::nullopt;
    if (automatic && repeatMode == RepeatMode::one) return from;
    if (static_cast<std::size_t>(*from) + 1 < order.size()) return *from + 1;
    if (repeatMode == RepeatMode::off) return std::nullopt;
    return 0;
}

std::optional<std::string> PlaybackQueue::advance(bool automatic) {
    if (!position) return std::nullopt;
    const auto next = following(position, automatic);
    if (!next && !automatic) return std::nullopt; // the user's next at the end stays put
    position = next;
    return currentPath();
}

std::optional<std::string> PlaybackQueue::retreat() {
    if (!position) return std::nullopt;
    if (*position >= 1) {
        --*position;
        return currentPath();
    }
    if (repeatMode == RepeatMode::off) return std::nullopt;
    position = static_cast<int>(order.size()) - 1;
    return currentPath();
}

void PlaybackQueue::reshuffle(std::mt19937_64& rng) {
    if (!position) {
        std::shuffle(order.begin(), order.end(), rng);
        return;
    }
    const int current = order[static_cast<std::size_t>(*position)];
    std::vector<int> rest;
    rest.reserve(order.size());
    for (int i : order)
        if (i != current) rest.push_back(i);
    std::shuffle(rest.begin(), rest.end(), rng);
    order.clear();
    order.push_back(current);
    order.insert(order.end(), rest.begin(), rest.end());
    position = 0;
}

void PlaybackQueue::setShuffle(bool on, std::mt19937_64& rng) {
    if (on == shuffle) return;
    shuffle = on;
    if (on) {
        reshuffle(rng);
        return;
    }
    std::optional<int> current;
    if (position) current = order[static_cast<std::size_t>(*position)];
    order.resize(paths.size());
    std::iota(order.begin(), order.end(), 0);
    position = current;
}

void PlaybackQueue::insert(std::size_t at, const std::vector<std::string>& added) {
    if (added.empty()) return;
    at = std::min(at, order.size());
    const std::size_t n = added.size();
    const std::size_t base = shuffle ? paths.size() : at;
    paths.insert(paths.begin() + static_cast<std::ptrdiff_t>(base), added.begin(), added.end());
    if (durations.size() + n == paths.size())
        durations.insert(durations.begin() + static_cast<std::ptrdiff_t>(base), n, kUnlooked);
    else
        durations.assign(paths.size(), kUnlooked);
    for (int& i : order)
        if (static_cast<std::size_t>(i) >= base) i += static_cast<int>(n);
    std::vector<int> fresh(n);
    std::iota(fresh.begin(), fresh.end(), static_cast<int>(base));
    order.insert(order.begin() + static_cast<std::ptrdiff_t>(at), fresh.begin(), fresh.end());
    if (position && static_cast<std::size_t>(*position) >= at) *position += static_cast<int>(n);
}

bool PlaybackQueue::remove(std::size_t at) {
    if (at >= order.size()) return false;
    const int gone = order[at];
    order.erase(order.begin() + static_cast<std::ptrdiff_t>(at));
    paths.erase(paths.begin() + gone);
    if (durations.size() == paths.size() + 1)
        durations.erase(durations.begin() + gone);
    else
        durations.assign(paths.size(), kUnlooked);
    for (int& i : order)
        if (i > gone) --i;
    if (position) {
        if (static_cast<std::size_t>(*position) > at)
            --*position;
        else if (static_cast<std::size_t>(*position) == at)
            position.reset();
    }
    return true;
}

bool PlaybackQueue::move(std::size_t at, int delta) {
    if (delta != 1 && delta != -1) return false;
    if (at >= order.size() || (delta < 0 && at == 0) || (delta > 0 && at + 1 >= order.size()))
        return false;
    const std::size_t other = delta > 0 ? at + 1 : at - 1;
    // Swapping the paths keeps the order a plain count when shuffle is off.
    std::swap(paths[static_cast<std::size_t>(order[at])],
              paths[static_cast<std::size_t>(order[other])]);
    if (durations.size() == paths.size())
        std::swap(durations[static_cast<std::size_t>(order[at])],
                  durations[static_cast<std::size_t>(order[other])]);
    if (position) {
        if (static_cast<std::size_t>(*position) == at)
            position = static_cast<int>(other);
        else if (static_cast<std::size_t>(*position) == other)
            position = static_cast<int>(at);
    }
    return true;
}

std::size_t PlaybackQueue::clearAfterCurrent() {
    const std::size_t keep = position ? static_cast<std::size_t>(*position) + 1 : 0;
    if (keep >= order.size()) return 0;
    const std::size_t gone = order.size() - keep;
    // The kept entries in play order, renumbered so the user's order follows them.
    std::vector<int> kept(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(keep));
    std::vector<int> rank(paths.size(), -1);
    std::vector<int> sorted = kept;
    std::sort(sorted.begin(), sorted.end());
    std::vector<std::string> newPaths;
    std::vector<int64_t> newDurations;
    newPaths.reserve(keep);
    const bool known = durations.size() == paths.size();
    for (int i : sorted) {
        rank[static_cast<std::size_t>(i)] = static_cast<int>(newPaths.size());
        newPaths.push_back(std::move(paths[static_cast<std::size_t>(i)]));
        newDurations.push_back(known ? durations[static_cast<std::size_t>(i)] : kUnlooked);
    }
    durations = std::move(newDurations);
    for (int& i : kept)
        i = rank[static_cast<std::size_t>(i)];
    paths = std::move(newPaths);
    order = std::move(kept);
    return gone;
}

} // namespace trovan
