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

} // namespace trovan
