// Pictures read off the main thread: the playing track's cover and the covers beside
// the shown artist's albums.

#include "app/AppController.h"

#include "app/WorkerPool.h"
#include "media/TagLibFile.h"
#include "playback/NowPlayingBridge.h"
#include "terminal/Palette.h"
#include "ui/CoverArtRenderer.h"

#include <algorithm>
#include <exception>

namespace trovan {

namespace {

// What shows through a transparent cover: the album rows and the player panel both draw
// their covers on the screen's own background.
constexpr RGB kCoverBackground = palette::background;

std::optional<std::vector<RGB>> decodeCover(const std::vector<std::string>& paths, int columns,
                                            int rows) {
    for (const auto& path : paths) {
        if (auto data = CoverArtRenderer::imageData(path))
            return CoverArtRenderer::pixels(*data, columns, rows, kCoverBackground);
    }
    return std::nullopt;
}

} // namespace

void AppController::loadCover(const Track& track, bool force) {
    if (!force && coverPath_ == track.path) return;
    coverPath_ = track.path;
    const int columns = layout_.cover.width, rows = layout_.cover.height;
    pool_.submit([post = host_.post, alive = std::weak_ptr<char>(alive_), this, path = track.path,
                  columns, rows] {
        std::optional<std::vector<std::uint8_t>> data;
        std::optional<std::vector<RGB>> pixels;
        std::exception_ptr failure; // reported by the pool once the panel has its placeholder
        try {
            data = CoverArtRenderer::imageData(path);
            if (data) pixels = CoverArtRenderer::pixels(*data, columns, rows, kCoverBackground);
        } catch (...) {
            failure = std::current_exception();
        }
        // Bytes that do not decode here are no cover for the desktop either; those that do
        // go to it as they are, decoded once.
        if (!pixels) data.reset();
        post([alive, this, path, pixels = std::move(pixels), data = std::move(data)]() mutable {
            if (!alive.lock() || coverPath_ != path) return;
            state_.cover = CoverArt{path, pixels};
            nowPlaying_->setArtwork(std::move(data));
            requestRender();
        });
        if (failure) std::rethrow_exception(failure);
    });
}

void AppController::loadAlbumCovers() {
    if (!layout_.hasCoverColumn() || !state_.shownArtist) return;
    const int row = *state_.shownArtist;
    if (row < 0 || row >= static_cast<int>(state_.artistRows.size())) return;
    const auto* a = state_.artistRows[static_cast<std::size_t>(row)].get<ArtistRow::Artist>();
    if (!a) return;
    const LibraryIndex::Artist& artist = state_.index.artists[static_cast<std::size_t>(a->artist)];

    struct Job {
        std::string key;
        std::vector<std::string> paths;
    };
    std::vector<Job> jobs;
    for (const auto& album : artist.albums) {
        std::string key = CoverArt::albumKey(artist, album);
        if (state_.albumCovers.count(key) || albumCoversLoading_.count(key)) continue;
        Job job{key, {}};
        for (auto id : album.tracks())
            job.paths.emplace_back(state_.index.table().path(id));
        albumCoversLoading_.insert(key);
        jobs.push_back(std::move(job));
    }
    if (jobs.empty()) return;

    // Moving on to another artist makes this batch stale: what has not been decoded by
    // then is dropped (and asked for again when the artist comes back).
    const int generation = ++*albumCoverGeneration_;
    pool_.submit([post = host_.post, alive = std::weak_ptr<char>(alive_), this,
                  current = albumCoverGeneration_, generation, jobs = std::move(jobs)] {
        // A cover that fails (memory running out) is shown as missing, the others still
        // load, and the pool reports the first failure at the end.
        std::exception_ptr failure;
        for (const auto& job : jobs) {
            const bool stale = current->load() != generation;
            std::optional<std::vector<RGB>> pixels;
            if (!stale) {
                try {
                    pixels =
                        decodeCover(job.paths, Layout::albumCoverColumns, Layout::albumCoverRows);
                } catch (...) {
                    if (!failure) failure = std::current_exception();
                }
            }
            post([alive, this, key = job.key, pixels = std::move(pixels), stale] {
                if (!alive.lock()) return;
                albumCoversLoading_.erase(key);
                if (stale) return;
                state_.albumCovers[key] = CoverArt{key, pixels};
                requestRender();
            });
        }
        if (failure) std::rethrow_exception(failure);
    });
}

} // namespace trovan
