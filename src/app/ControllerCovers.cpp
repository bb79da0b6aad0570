// SPDX-License-Identifier: GPL-3.0-or-later
// Pictures read off the main thread: the playing track's cover and the covers beside
// the shown artist's albums.

#include "app/AppController.h"

#include "app/WorkerPool.h"
#include "media/CoverFile.h"
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

// The picture at the cells' pixel size, when the terminal shows images.
std::shared_ptr<const PixelImage> imageFor(const std::vector<std::uint8_t>& data, int columns,
                                           int rows, const GraphicsChoice& graphics) {
    if (graphics.protocol == GraphicsProtocol::none) return nullptr;
    return CoverArtRenderer::image(data, columns * graphics.cellWidth, rows * graphics.cellHeight,
                                   kCoverBackground);
}

CoverArt decodeCover(const std::string& key, const std::vector<std::string>& paths, int columns,
                     int rows, const GraphicsChoice& graphics) {
    CoverArt art{key, std::nullopt, nullptr};
    for (const auto& path : paths) {
        if (auto data = CoverFile::read(path)) {
            art.pixels = CoverArtRenderer::pixels(*data, columns, rows, kCoverBackground);
            if (art.pixels) art.image = imageFor(*data, columns, rows, graphics);
            break;
        }
    }
    return art;
}

} // namespace

void AppController::loadCover(const Track& track, bool force) {
    if (!force && coverPath_ == track.path) return;
    coverPath_ = track.path;
    const int columns = layout_.cover.width, rows = layout_.cover.height;
    pool_.submit([post = host_.post, alive = alive_.watch(), this, path = track.path, columns, rows,
                  graphics = state_.graphics] {
        std::optional<std::vector<std::uint8_t>> data;
        std::optional<std::vector<RGB>> pixels;
        std::shared_ptr<const PixelImage> image;
        std::exception_ptr failure; // reported by the pool once the panel has its placeholder
        try {
            data = CoverFile::read(path);
            if (data) pixels = CoverArtRenderer::pixels(*data, columns, rows, kCoverBackground);
            if (pixels) image = imageFor(*data, columns, rows, graphics);
        } catch (...) {
            failure = std::current_exception();
        }
        // Bytes that do not decode here are no cover for the desktop either; those that do
        // go to it as they are, decoded once.
        if (!pixels) data.reset();
        post([alive, this, path, pixels = std::move(pixels), image = std::move(image),
              data = std::move(data)]() mutable {
            if (!alive || coverPath_ != path) return;
            state_.cover = CoverArt{path, pixels, image};
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
    pool_.submit([post = host_.post, alive = alive_.watch(), this, current = albumCoverGeneration_,
                  generation, jobs = std::move(jobs), graphics = state_.graphics] {
        // A cover that fails (memory running out) is shown as missing, the others still
        // load, and the pool reports the first failure at the end.
        std::exception_ptr failure;
        for (const auto& job : jobs) {
            const bool stale = current->load() != generation;
            CoverArt art{job.key, std::nullopt, nullptr};
            if (!stale) {
                try {
                    art = decodeCover(job.key, job.paths, Layout::albumCoverColumns,
                                      Layout::albumCoverRows, graphics);
                } catch (...) {
                    if (!failure) failure = std::current_exception();
                }
            }
            post([alive, this, art = std::move(art), stale] {
                if (!alive) return;
                albumCoversLoading_.erase(art.key);
                if (stale) return;
                state_.albumCovers[art.key] = art;
                requestRender();
            });
        }
        if (failure) std::rethrow_exception(failure);
    });
}

void AppController::setGraphics(const GraphicsChoice& graphics) {
    if (graphics == state_.graphics) return;
    const bool images = graphics.protocol != GraphicsProtocol::none ||
                        state_.graphics.protocol != GraphicsProtocol::none;
    state_.graphics = graphics;
    // Half blocks do not depend on the cell's pixels: nothing to make again.
    if (!images) return;
    // Every picture is made again at the new size (or without an image at all).
    state_.albumCovers.clear();
    ++*albumCoverGeneration_;
    albumCoversLoading_.clear();
    loadAlbumCovers();
    if (state_.playback.track) loadCover(*state_.playback.track, true);
    requestRender();
}

} // namespace trovan
