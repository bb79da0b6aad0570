// SPDX-License-Identifier: GPL-3.0-or-later
// Keeping the shown library in step with the music folders: adding and removing
// folders, rescans (one at a time, later requests folded into one), following the
// folders' changes as they happen (or polling those that cannot be watched), reloading
// the cache into a new index and installing it without losing the user's place.

#include "app/AppController.h"

#include "app/WorkerPool.h"
#include "library/FolderWatcher.h"
#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "playback/LoopSource.h"
#include "playback/PlaybackController.h"
#include "text/Text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace trovan {

namespace fs = std::filesystem;

namespace {

// The watcher as the main loop serves it: its descriptor, and the moment the changes it
// gathered are due.
class WatchSource : public LoopSource {
public:
    WatchSource(std::shared_ptr<FolderWatcher> watcher, std::function<void()> due)
        : watcher_(std::move(watcher)), due_(std::move(due)) {}
    Wait wait() const override {
        Wait w;
        w.fd = watcher_->fd();
        w.deadline = watcher_->due();
        return w;
    }
    void process() override {
        watcher_->readEvents();
        due_();
    }

private:
    std::shared_ptr<FolderWatcher> watcher_;
    std::function<void()> due_;
};

std::string pollReason(const FolderWatcher::RootState& root) {
    switch (root.reason) {
    case FolderWatcher::Reason::network:
        return "carpeta en red: " + root.fileSystem;
    case FolderWatcher::Reason::userSpace:
        return "sistema de archivos FUSE";
    case FolderWatcher::Reason::watchLimit:
        return "no quedan vigilancias libres: max_user_watches";
    case FolderWatcher::Reason::none:
        break;
    }
    return "sin avisos del sistema";
}

} // namespace

std::string AppController::normalizeRoot(const std::string& path) {
    std::string expanded = path;
    if (!expanded.empty() && expanded[0] == '~' && (expanded.size() == 1 || expanded[1] == '/')) {
        const char* home = std::getenv("HOME");
        expanded = std::string(home ? home : "") + expanded.substr(1);
    }
    fs::path p(expanded);
    if (p.is_relative()) {
        std::error_code ec;
        fs::path cwd = fs::current_path(ec);
        p = (ec ? fs::path("/") : cwd) / p;
    }
    std::string out = p.lexically_normal().string();
    while (out.size() > 1 && out.back() == '/')
        out.pop_back();
    return out.empty() ? "/" : out;
}

void AppController::start(const std::vector<std::string>& addingRoots) {
    // An error already shown (the settings file could not be read) comes back after the
    // summary too.
    if (state_.status && state_.status->isError) startupErrors_ = state_.status->text;
    for (const auto& root : addingRoots) {
        addRoot(root, false);
        if (state_.status && state_.status->isError)
            startupErrors_ += (startupErrors_.empty() ? "" : " · ") + state_.status->text;
    }
    if (state_.settings.watch) startWatcher();
    refreshPlaylists();
    restoreQueue();
    // The scan counts as started from here: the cached library is loaded first, then
    // the folders are walked, and the header says we are looking from the first frame.
    recoverWrites();
    scanning_ = true;
    state_.indexing = IndexingProgress{0, 0};
    reloadLibrary([this] {
        const bool force = pendingReindex_.value_or(false);
        pendingReindex_.reset();
        runScan(force);
    });
}

void AppController::addRoot(const std::string& path, bool reindexing) {
    const std::string root = normalizeRoot(path);
    std::error_code ec;
    if (!fs::is_directory(root, ec)) {
        report((fs::exists(root, ec) ? "No es una carpeta: " : "No existe la carpeta: ") + root,
               true);
        return;
    }
    auto& roots = state_.settings.roots;
    if (std::find(roots.begin(), roots.end(), root) != roots.end()) {
        report("La carpeta ya estaba agregada");
        return;
    }
    roots.push_back(root);
    saveSettings();
    report("Carpeta agregada: " + root);
    if (reindexing) reindex(false);
}

void AppController::removeRoot(const std::string& path) {
    const std::string root = normalizeRoot(path);
    auto& roots = state_.settings.roots;
    if (std::find(roots.begin(), roots.end(), root) == roots.end()) {
        report("No está en la lista: " + root, true);
        return;
    }
    roots.erase(std::remove(roots.begin(), roots.end(), root), roots.end());
    saveSettings();
    report("Carpeta quitada: " + root);
    reindex(false);
}

void AppController::reindex(bool force) {
    if (scanning_ || updating_) {
        pendingReindex_ = pendingReindex_.value_or(false) || force;
        return;
    }
    runScan(force);
}

void AppController::runScan(bool force) {
    scanning_ = true;
    pendingChanges_ = {}; // the scan sees them all
    state_.indexing = IndexingProgress{0, 0};
    requestRender();
    const auto started = std::chrono::steady_clock::now();
    auto progress = [post = host_.post, alive = alive_.watch(), this](int64_t done, int64_t total) {
        post([alive, this, done, total] {
            if (!alive || !state_.indexing) return;
            state_.indexing = IndexingProgress{static_cast<int>(done), static_cast<int>(total)};
            requestRender();
        });
    };
    pool_.submit([store = store_, roots = state_.settings.roots, force, progress, post = host_.post,
                  alive = alive_.watch(), this, started, watcher = watcher_] {
        IndexSummary summary;
        const std::string failure = WorkerPool::failureOf([&] {
            // Watches first: what changes while the folders are walked is seen afterwards.
            // Each scan sets them up again, so a folder that came back is watched again.
            if (watcher) watcher->watch(roots);
            summary = Indexer::run(roots, *store, force, progress);
        });
        post([alive, this, summary, started, failure] {
            if (!alive) return;
            if (!failure.empty()) {
                // The cache keeps what it had; the next rescan tries again.
                report("No se pudo actualizar la biblioteca: " + failure, true);
                scanEnded();
                return;
            }
            auto finish = [this, summary, started] {
                const double seconds =
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - started)
                        .count();
                char elapsed[32];
                std::snprintf(elapsed, sizeof elapsed, "%.1f", seconds);
                std::string text = "Biblioteca al día: " +
                                   text::counted(summary.fileCount, "archivo", "archivos") + " · " +
                                   text::counted(summary.readCount, "leído", "leídos") + " · " +
                                   text::counted(summary.removedCount, "quitado", "quitados") +
                                   " (" + elapsed + " s)";
                // Which ones went to the log (standard error during the session).
                if (summary.unreadableCount > 0)
                    text += " · " + std::to_string(summary.unreadableCount) +
                            " sin leer (ver trovan.log)";
                // A drive not mounted, a NAS down: its tracks stay, and the user hears why.
                if (!summary.unavailable.empty()) {
                    text += summary.unavailable.size() == 1 ? " · No disponible: "
                                                            : " · No disponibles: ";
                    for (std::size_t i = 0; i < summary.unavailable.size(); ++i)
                        text += (i ? ", " : "") + summary.unavailable[i];
                    text += " (se conservan sus canciones)";
                }
                report(text, !summary.unavailable.empty());
                // The command line's errors come back once the summary has been read.
                if (!startupErrors_.empty() && host_.postDelayed)
                    host_.postDelayed(std::chrono::seconds(4),
                                      guarded([this, errors = std::exchange(startupErrors_, {})] {
                                          report(errors, true);
                                      }));
                scanEnded();
            };
            // Nothing read and nothing removed: the cache is as loaded, no reload needed.
            if (summary.readCount == 0 && summary.removedCount == 0)
                finish();
            else
                reloadLibrary(std::move(finish));
        });
    });
}

void AppController::scanEnded() {
    state_.indexing.reset();
    scanning_ = false;
    watchesSet();
    if (pendingReindex_) {
        const bool pending = *pendingReindex_;
        pendingReindex_.reset();
        reindex(pending);
    } else if (!pendingChanges_.empty()) {
        runUpdate(std::exchange(pendingChanges_, {}));
    }
}

void AppController::startWatcher() {
    if (watcher_) return;
    watcher_ = std::make_shared<FolderWatcher>();
    if (watcher_->fd() < 0 || !serveWatch) return; // every folder is polled instead
    watchSource_ = std::make_unique<WatchSource>(watcher_, guarded([this] { folderChangesDue(); }));
    serveWatch(watchSource_.get());
}

void AppController::stopWatcher() {
    if (serveWatch && watchSource_) serveWatch(nullptr);
    watchSource_.reset();
    watcher_.reset(); // a scan under way holds it until it ends
    pendingChanges_ = {};
    ++pollGeneration_;
}

void AppController::setWatching(const std::string& mode) {
    if (mode.empty()) {
        report(watchSummary());
        return;
    }
    const bool on = mode == "on";
    if (state_.settings.watch != on) {
        state_.settings.watch = on;
        saveSettings();
    }
    if (!on) {
        stopWatcher();
        report("Vigilancia desactivada: la biblioteca cambia con :reindex");
        return;
    }
    const bool was = watcher_ != nullptr;
    startWatcher();
    report("Vigilancia activada");
    // What changed while nobody looked is found by a rescan, which also sets the watches.
    if (!was) reindex(false);
}

std::string AppController::watchSummary() const {
    if (!watcher_) return "Vigilancia desactivada (:watch on para activarla)";
    const auto roots = watcher_->roots();
    if (roots.empty()) return "Vigilancia activada: sin carpetas todavía";
    std::string text = "Vigilancia: ";
    for (std::size_t i = 0; i < roots.size(); ++i) {
        const auto& r = roots[i];
        text += (i ? " · " : "") + r.root + " ";
        if (r.mode == FolderWatcher::Mode::watched && watchSource_)
            text += "al instante";
        else if (r.mode == FolderWatcher::Mode::missing)
            text += "no disponible (se revisa cada " + std::to_string(state_.settings.pollMinutes) +
                    " min)";
        else
            text += "cada " + std::to_string(state_.settings.pollMinutes) + " min (" +
                    pollReason(r) + ")";
    }
    return text;
}

void AppController::watchesSet() {
    if (!watcher_) return;
    std::string told;
    for (const auto& r : watcher_->roots()) {
        const bool polled = r.mode == FolderWatcher::Mode::polled ||
                            (r.mode == FolderWatcher::Mode::watched && !watchSource_);
        if (!polled || !pollingTold_.insert(r.root).second) continue;
        told += (told.empty() ? "" : " · ") + r.root + ": se revisa cada " +
                std::to_string(state_.settings.pollMinutes) + " min (" + pollReason(r) + ")";
    }
    // After the scan's summary, which is shown first.
    if (!told.empty() && host_.postDelayed)
        host_.postDelayed(std::chrono::seconds(4), guarded([this, told] { report(told); }));
    armPolling();
}

void AppController::armPolling() {
    const int generation = ++pollGeneration_;
    if (!watcher_ || !host_.postDelayed) return;
    const auto roots = watcher_->roots();
    const bool needed = std::any_of(roots.begin(), roots.end(), [&](const auto& r) {
        return r.mode != FolderWatcher::Mode::watched || !watchSource_;
    });
    // Nothing to poll: no timer, so an idle library wakes nothing up.
    if (!needed) return;
    host_.postDelayed(std::chrono::minutes(state_.settings.pollMinutes),
                      guarded([this, generation] {
                          if (generation == pollGeneration_) reindex(false);
                      }));
}

void AppController::folderChangesDue() {
    if (!watcher_) return;
    // A root went away or ran out of watches meanwhile: it is polled from now on.
    if (watcher_->rootsChanged()) watchesSet();
    const auto due = watcher_->due();
    if (!due || *due > std::chrono::steady_clock::now()) return;
    FolderChanges changes = watcher_->take();
    if (changes.rescan) {
        reindex(false); // events were lost
    } else if (scanning_ || updating_) {
        pendingChanges_.merge(changes);
    } else if (!changes.empty()) {
        runUpdate(std::move(changes));
    }
}

void AppController::runUpdate(FolderChanges changes) {
    updating_ = true;
    pool_.submit([store = store_, roots = state_.settings.roots, changes = std::move(changes),
                  post = host_.post, alive = alive_.watch(), this]() {
        IndexSummary summary;
        std::unordered_map<std::string, std::string> moves;
        const std::string failure = WorkerPool::failureOf(
            [&] { summary = Indexer::update(changes, roots, *store, 0, &moves); });
        post([alive, this, summary, failure, moves = std::move(moves)] {
            if (!alive) return;
            if (!moves.empty()) playback_->followMoves(moves);
            if (!failure.empty()) {
                report("No se pudo actualizar la biblioteca: " + failure, true);
                updateEnded();
                return;
            }
            // For tests and for the curious: one line per update.
            if (const char* log = std::getenv("TROVAN_WATCH_LOG"); log && *log)
                std::ofstream(log, std::ios::app)
                    << "archivos=" << summary.fileCount << " leidos=" << summary.readCount
                    << " movidos=" << summary.movedCount << " quitados=" << summary.removedCount
                    << "\n";
            if (summary.readCount == 0 && summary.removedCount == 0 && summary.movedCount == 0)
                updateEnded();
            else
                reloadLibrary([this] { updateEnded(); });
        });
    });
}

void AppController::updateEnded() {
    updating_ = false;
    if (pendingReindex_) {
        const bool pending = *pendingReindex_;
        pendingReindex_.reset();
        reindex(pending);
    } else if (!pendingChanges_.empty()) {
        runUpdate(std::exchange(pendingChanges_, {}));
    }
}

void AppController::reloadLibrary(Task then) {
    // Reads run on several threads and may finish out of order: only the newest is shown.
    pool_.submit([store = store_, post = host_.post, alive = alive_.watch(), this,
                  generation = ++reloads_, then = std::move(then)]() mutable {
        std::shared_ptr<LibraryIndex> index;
        const std::string failure = WorkerPool::failureOf(
            [&] { index = std::make_shared<LibraryIndex>(store->loadTable()); });
        post([alive, this, index, failure, generation, then = std::move(then)] {
            if (!alive) return;
            // Unreadable: the library shown stays as it was. An older read that ends last
            // would bring back what a newer one replaced.
            if (generation == reloads_ && index)
                setLibrary(std::move(*index));
            else if (generation == reloads_)
                report("No se pudo leer la biblioteca: " + failure, true);
            if (then) then();
        });
    });
}

void AppController::setLibrary(LibraryIndex index) {
    std::optional<std::string> shownKey;
    if (state_.shownArtist) {
        const int row = *state_.shownArtist;
        if (row >= 0 && row < static_cast<int>(state_.artistRows.size()))
            if (const auto* a =
                    state_.artistRows[static_cast<std::size_t>(row)].get<ArtistRow::Artist>())
                shownKey = state_.index.artists[static_cast<std::size_t>(a->artist)].key;
    }
    std::optional<std::string> trackPath;
    const int c = state_.library.cursor;
    if (c >= 0 && c < static_cast<int>(state_.libraryRows.size()))
        if (const auto* t =
                state_.libraryRows[static_cast<std::size_t>(c)].get<LibraryRow::Track>())
            trackPath = state_.index.table().path(t->id);

    // The old index goes away off the main thread (a million records take a while to
    // free), and what it held goes back to the system rather than staying in the heap.
    auto old = std::make_shared<LibraryIndex>(std::move(state_.index));
    state_.libraryRows.clear(); // its rows name tracks of the old index
    state_.index = std::move(index);
    pool_.submit([old = std::move(old)]() mutable {
        old.reset();
        malloc_trim(0);
    });
    for (auto it = state_.marked.begin(); it != state_.marked.end();) {
        if (state_.index.contains(*it))
            ++it;
        else
            it = state_.marked.erase(it);
    }
    state_.shownArtist.reset();
    rebuildArtistRows(shownKey);

    if (trackPath) {
        for (std::size_t i = 0; i < state_.libraryRows.size(); ++i) {
            const auto* t = state_.libraryRows[i].get<LibraryRow::Track>();
            if (t && state_.index.table().hasPath(t->id, *trackPath)) {
                state_.library.cursor = static_cast<int>(i);
                state_.library.scrollToCursor(listHeight(Focus::library));
                break;
            }
        }
    }
    // The playing track's record may have changed with the rescan.
    playback_->refreshCurrentTrack();
    playback_->refreshDurations();
    requestRender();
}

void AppController::rebuildArtistRows(const std::optional<std::string>& keepingKey) {
    state_.artistRows = state_.index.artistRows();
    if (!state_.playlists.empty()) {
        state_.artistRows.push_back(ArtistRow::letter("Listas"));
        for (const auto& name : state_.playlists)
            state_.artistRows.push_back(ArtistRow::playlist(name));
    }
    const int count = static_cast<int>(state_.artistRows.size());
    if (count == 0) {
        state_.artists = {};
        state_.libraryRows.clear();
        state_.library = {};
        return;
    }
    int target = 0;
    if (keepingKey) {
        for (int i = 0; i < count; ++i) {
            const auto* a = state_.artistRows[static_cast<std::size_t>(i)].get<ArtistRow::Artist>();
            if (a && state_.index.artists[static_cast<std::size_t>(a->artist)].key == *keepingKey) {
                target = i;
                break;
            }
        }
    }
    state_.artists.cursor = std::clamp(target, 0, count - 1);
    const Focus saved = state_.focus;
    state_.focus = Focus::artists;
    moveCursor(0); // snaps forward, scrolls and shows the artist under the cursor
    state_.focus = saved;
}

void AppController::rebuildLibraryRows() {
    std::optional<LibraryRow> remembered;
    const int c = state_.library.cursor;
    if (c >= 0 && c < static_cast<int>(state_.libraryRows.size()))
        remembered = state_.libraryRows[static_cast<std::size_t>(c)];

    int artist = -1;
    if (state_.shownArtist) {
        const int row = *state_.shownArtist;
        if (row >= 0 && row < static_cast<int>(state_.artistRows.size()))
            if (const auto* a =
                    state_.artistRows[static_cast<std::size_t>(row)].get<ArtistRow::Artist>())
                artist = a->artist;
    }
    state_.libraryRows = state_.index.libraryRows(artist, layout_.minimumAlbumHeight());

    int cursor = 0;
    if (remembered) {
        auto it = std::find(state_.libraryRows.begin(), state_.libraryRows.end(), *remembered);
        if (it != state_.libraryRows.end())
            cursor = static_cast<int>(it - state_.libraryRows.begin());
    }
    if (state_.libraryRows.empty()) {
        state_.library = {};
        return;
    }
    state_.library.cursor = cursor;
    const Focus saved = state_.focus;
    state_.focus = Focus::library;
    moveCursor(0);
    state_.focus = saved;
}

} // namespace trovan
