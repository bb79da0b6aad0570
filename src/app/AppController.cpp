// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/AppController.h"

#include "app/WorkerPool.h"
#include "library/FolderWatcher.h"
#include "library/LibraryStore.h"
#include "playback/AudioEngine.h"
#include "playback/LoopSource.h"
#include "playback/NowPlayingBridge.h"
#include "playback/PlaybackController.h"
#include "tags/TagEditor.h"

#include <cstdio>

namespace trovan {

namespace {
constexpr auto kStatusLifetime = std::chrono::milliseconds(4000);
// Slightly after the message expires, so the frame drawn then no longer shows it.
constexpr auto kStatusRedraw = std::chrono::milliseconds(4100);
// How long quitting waits for the tag write in hand.
constexpr auto kWriteStopLimit = std::chrono::milliseconds(1500);
} // namespace

AppController::AppController(Terminal& terminal, Size size, SettingsStore settingsStore,
                             std::shared_ptr<LibraryStore> store, WorkerPool& pool, Host host)
    : terminal_(terminal), settingsStore_(std::move(settingsStore)), store_(std::move(store)),
      pool_(pool), host_(std::move(host)), state_(settingsStore_.load()), layout_(size) {
    auto engine = std::make_unique<AudioEngine>(
        [post = host_.post](AudioEngine::Task task) { post(std::move(task)); }, host_.outputs);
    engine->onOutputNotice = [this](const std::string& message, bool problem) {
        report(message, problem);
    };
    playback_ = std::make_unique<PlaybackController>(std::move(engine));
    playback_->lookup = [this](const std::string& path) -> std::optional<Track> {
        return state_.index.find(path);
    };
    playback_->onChange = [this] { playbackChanged(); };
    state_.queue = &playback_->queue();
    playback_->durationOf = [this](const std::string& path) -> int64_t {
        const TrackTable& table = state_.index.table();
        auto id = table.find(path);
        return id ? table.durationMs(*id) : 0;
    };
    playback_->onError = [this](const std::string& message) { report(message, true); };

    const Settings& s = state_.settings;
    playback_->setVolume(s.volume, false);
    playback_->setShuffle(s.shuffle);
    playback_->setRepeatMode(s.repeatMode);
    playback_->setLoudness(s.replayGain, s.preamp);
    playback_->setCrossfade(s.crossfade);
    applyEqualizer();
    createNowPlaying();
    playback_->onQueueChange = [this] { queueChanged(); };
    // Last line of defence: a background job that throws is named in the header instead
    // of ending the program. The flows catch what they expect themselves.
    pool_.onFailure = [post = host_.post, alive = alive_.watch(), this](const std::string& what) {
        post([alive, this, what] {
            if (alive) report("Error en segundo plano: " + what, true);
        });
    };
}

AppController::~AppController() {
    // Stop the engine's callbacks before the state they touch goes away.
    playback_.reset();
}

AppController::Task AppController::guarded(Task task) {
    return [alive = alive_.watch(), task = std::move(task)] {
        if (alive) task();
    };
}

void AppController::postBack(Task task) {
    host_.post(guarded(std::move(task)));
}

double AppController::elapsed() const {
    return playback_->position();
}

void AppController::report(const std::string& text, bool error) {
    state_.status = StatusMessage{text, error, host_.now() + kStatusLifetime};
    requestRender();
    if (host_.postDelayed) host_.postDelayed(kStatusRedraw, guarded([this] { requestRender(); }));
}

void AppController::saveSettings() {
    settingsStore_.saveLater(state_.settings);
    publishSettings();
}

void AppController::resize(Size size) {
    const bool hadCovers = layout_.hasCoverColumn();
    layout_ = Layout(size);
    if (layout_.hasCoverColumn() != hadCovers) {
        rebuildLibraryRows();
        if (layout_.hasCoverColumn()) loadAlbumCovers();
    }
    state_.artists.scrollToCursor(listHeight(Focus::artists));
    state_.library.scrollToCursor(listHeight(Focus::library));
    requestRender();
}

void AppController::playbackChanged() {
    const PlaybackState& fresh = playback_->state();
    const bool trackChanged = (fresh.track ? fresh.track->path : std::string()) !=
                              (state_.playback.track ? state_.playback.track->path : std::string());
    state_.playback = fresh;
    nowPlaying_->update(fresh);
    if (trackChanged) {
        if (fresh.track) {
            loadCover(*fresh.track, false);
        } else {
            state_.cover.reset();
            coverPath_.clear();
        }
        if (state_.lyricsSync) {
            state_.lyricsSync.reset();
            report("Sincronización cancelada: cambió la canción; no se guardó nada", true);
        }
        if (state_.lyricsVisible && (lyricsFollowPlayback_ || lyricsOfPlaying_)) loadLyrics();
    }
    if (trackChanged) nowPlaying_->updateQueue(playback_->queue());
    if (trackChanged || fresh.isPlaying != lastReportedPlaying_) saveQueue(false);
    if (fresh.isPlaying != lastReportedPlaying_) {
        lastReportedPlaying_ = fresh.isPlaying;
        if (playingChanged) playingChanged(fresh.isPlaying);
    }
    requestRender();
}

void AppController::quit() {
    // A batch of tag writes finishes or rolls back the file in hand and starts no other.
    std::string unfinished;
    if (tagEditor_ && writesInFlight_ > 0) {
        std::size_t written = 0, total = 0;
        const bool settled = tagEditor_->stopAndWait(kWriteStopLimit, written, total);
        unfinished = "Se guardaron " + std::to_string(written) + " de " + std::to_string(total) +
                     " archivos; los demás quedaron como estaban" +
                     (settled ? "" : " (uno quedó a medias y se deshará al volver a abrir)");
        report(unfinished, true);
    }
    saveSettings();
    settingsStore_.flush();
    // Only a queue this run has seen: one still being restored stays as it was.
    if (queueSaveGeneration_ > 0) saveQueue(true);
    if (store_) store_->close(); // leaves no write-ahead log behind for the next start
    if (playback_->state().isPlaying) playback_->pause();
    if (terminal_.isActive) {
        restoreTerminal();
        terminal_.isActive = false;
    }
    // The screen is gone: the shell gets the last word on the interrupted batch.
    if (!unfinished.empty()) std::printf("trovan: %s\n", unfinished.c_str());
    std::fflush(stdout);
    if (host_.exit) host_.exit(0);
    // The host's exit must not come back; background threads may still be busy, so
    // leave without running destructors under them.
    std::_Exit(0);
}

} // namespace trovan
