// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <vector>

namespace trovan {

// The folder of cover files that desktop clients read by URL: at most one cover at a
// time. Writes run off the main thread and may overlap, so each asks with the
// generation it was started for and gives up once a newer one has been handed out.
class ArtworkCache {
public:
    explicit ArtworkCache(std::filesystem::path folder) : folder_(std::move(folder)) {}

    // A new generation, making every earlier write or clear stale (main thread).
    int next() { return ++latest_; }
    int latest() const { return latest_; }

    // Writes `bytes` (a picture known to decode) atomically and removes every other cover.
    // None when they cannot be written or the generation is stale.
    std::optional<std::filesystem::path> write(int generation,
                                               const std::vector<std::uint8_t>& bytes);
    // Removes every cover, unless the generation is stale. A clear and the write that
    // follows it in the same generation may run in either order: the written cover stays.
    void clear(int generation);

private:
    void prune(const std::filesystem::path& keep);

    std::filesystem::path folder_;
    std::mutex lock_;
    std::atomic<int> latest_{0};
    int writtenGeneration_ = -1; // under lock_
    std::filesystem::path written_;
};

} // namespace trovan
