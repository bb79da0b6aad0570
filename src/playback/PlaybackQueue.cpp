#include "playback/PlaybackQueue.h"

#include <algorithm>
#include <numeric>

namespace trovan {

void PlaybackQueue::replace(std::vector<std::string> newPaths, int startAt, std::mt19937_64& rng) {
    paths = std::move(newPaths);
    order.resize(paths.size());
    std::iota(order.begin(), order.end(), 0);
    if (startAt >= 0 && static_cast<std::size_t>(startAt) < paths.size())
        position = startAt;
    else
        position.reset();
    if (shuffle) reshuffle(rng);
}

std::optional<std::string> PlaybackQueue::currentPath() const {
    if (!position) return std::nullopt;
    return paths[static_cast<std::size_t>(order[static_cast<std::size_t>(*position)])];
}

std::optional<std::string> PlaybackQueue::advance(bool automatic) {
    if (!position) return std::nullopt;
    if (automatic && repeatMode == RepeatMode::one) return currentPath();
    if (static_cast<std::size_t>(*position) + 1 < order.size()) {
        ++*position;
        return currentPath();
    }
    if (repeatMode == RepeatMode::off) {
        if (automatic) position.reset();
        return std::nullopt;
    }
    position = 0;
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

} // namespace trovan
