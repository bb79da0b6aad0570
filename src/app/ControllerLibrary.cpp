// Keeping the shown library in step with the music folders: adding and removing
// folders, rescans (one at a time, later requests folded into one), reloading the cache
// into a new index and installing it without losing the user's place.

#include "app/AppController.h"

#include "app/WorkerPool.h"
#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "playback/PlaybackController.h"
#include "text/Text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <malloc.h>
#include <new>
#include <system_error>
#include <utility>

namespace trovan {

namespace fs = std::filesystem;

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
    if (scanning_) {
        pendingReindex_ = pendingReindex_.value_or(false) || force;
        return;
    }
    runScan(force);
}

void AppController::runScan(bool force) {
    scanning_ = true;
    state_.indexing = IndexingProgress{0, 0};
    requestRender();
    const auto started = std::chrono::steady_clock::now();
    auto progress = [post = host_.post, alive = std::weak_ptr<char>(alive_), this](int64_t done,
                                                                                   int64_t total) {
        post([alive, this, done, total] {
            if (!alive.lock() || !state_.indexing) return;
            state_.indexing = IndexingProgress{static_cast<int>(done), static_cast<int>(total)};
            requestRender();
        });
    };
    pool_.submit([store = store_, roots = state_.settings.roots, force, progress, post = host_.post,
                  alive = std::weak_ptr<char>(alive_), this, started] {
        IndexSummary summary;
        std::string failure;
        try {
            summary = Indexer::run(roots, *store, force, progress);
        } catch (const std::bad_alloc&) {
            failure = "no hay memoria suficiente";
        } catch (const std::exception& e) {
            failure = e.what();
        } catch (...) {
            failure = "error desconocido";
        }
        post([alive, this, summary, started, failure] {
            if (!alive.lock()) return;
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
    if (pendingReindex_) {
        const bool pending = *pendingReindex_;
        pendingReindex_.reset();
        reindex(pending);
    }
}

void AppController::reloadLibrary(Task then) {
    pool_.submit([store = store_, post = host_.post, alive = std::weak_ptr<char>(alive_), this,
                  then = std::move(then)]() mutable {
        std::shared_ptr<LibraryIndex> index;
        std::string failure;
        try {
            index = std::make_shared<LibraryIndex>(store->loadTable());
        } catch (const std::bad_alloc&) {
            failure = "no hay memoria suficiente";
        } catch (const std::exception& e) {
            failure = e.what();
        } catch (...) {
            failure = "error desconocido";
        }
        post([alive, this, index, failure, then = std::move(then)] {
            if (!alive.lock()) return;
            // Unreadable: the library shown stays as it was.
            if (index)
                setLibrary(std::move(*index));
            else
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
    requestRender();
}

void AppController::rebuildArtistRows(const std::optional<std::string>& keepingKey) {
    state_.artistRows = state_.index.artistRows();
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
