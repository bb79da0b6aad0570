// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The engine's buffer sizes and timings, shared by its parts.

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>

namespace trovan::engine {

constexpr double ringSeconds = 0.5;
constexpr std::size_t decodeChunkFrames = 4096;
constexpr std::size_t minWriteFrames = 1024;
constexpr std::size_t minRingFrames = 8 * minWriteFrames;
// The ring holds half a second: topping it up every 40 ms is plenty. Once the
// decoder is done we look more often, so the end of a track is noticed promptly.
constexpr auto refillInterval = std::chrono::milliseconds(40);
constexpr auto endWatchInterval = std::chrono::milliseconds(5);
constexpr double volumeRampSeconds = 0.02;
// Every start of a segment fades in, and a pause fades out, over this long: enough to
// keep the jump from clicking, too short to hear as a fade.
constexpr double fadeSeconds = 0.004;

inline std::string fileName(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

} // namespace trovan::engine
