// SPDX-License-Identifier: GPL-3.0-or-later
// The queue and play lists: adding the selection (a, A), the queue view's keys and
// mouse, saving, loading, exporting and deleting lists, the "Listas" rows of the artist
// pane, the yes/no question asked before anything is replaced or deleted, and the
// queue kept in the data folder between runs.

#include "app/AppController.h"

#include "app/WorkerPool.h"
#include "config/AppPaths.h"
#include "library/QueueFile.h"
#include "playback/NowPlayingBridge.h"
#include "playback/PlaybackController.h"
#include "text/Text.h"
#include "ui/Overlays.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>

namespace trovan {

namespace fs = std::filesystem;

struct AppController::QueueWrites {
    std::mutex lock;
    int written = 0; // generation of the last queue file written
};

namespace {

constexpr auto kQueueQuiet = std::chrono::milliseconds(1000);
// Lists larger than this are refused rather than read into memory.
constexpr std::uintmax_t kListLimit = 64u << 20;

std::string songs(std::size_t n) {
    return n == 1 ? "1 canción" : std::to_string(n) + " canciones";
}

bool isChar(const Key& key, const char* c) {
    return key.kind == Key::Kind::char_ && key.text == c;
}

std::string quoted(const std::string& s) {
    return "«" + s + "»";
}

// "~/x" is the home folder's x; relative paths are taken from the working folder.
fs::path userPath(const std::string& typed) {
    std::string p = typed;
    if (p == "~" || p.starts_with("~/")) {
        const char* home = std::getenv("HOME");
        if (home && *home) p = std::string(home) + p.substr(1);
    }
    std::error_code ec;
    fs::path abs = fs::absolute(p, ec);
    return (ec ? fs::path(p) : abs).lexically_normal();
}

std::optional<std::string> readFile(const fs::path& path, std::string& error) {
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    if (ec) {
        error = "no se pudo leer";
        return std::nullopt;
    }
    if (size > kListLimit) {
        error = "es demasiado grande (más de 64 MB)";
        return std::nullopt;
    }
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        error = "no se pudo leer";
        return std::nullopt;
    }
    return bytes;
}

bool isFile(const std::string& path) {
    std::error_code ec;
    return fs::is_regular_file(path, ec);
}

} // namespace

// --- Adding to the queue

void AppController::enqueueSelection(bool next) {
    const auto paths = targetPaths();
    if (paths.empty()) {
        report("Selecciona una canción, un álbum o un artista", true);
        return;
    }
    playback_->enqueue(paths, next);
    const std::size_t n = paths.size();
    if (next)
        report(songs(n) +
               (n == 1 ? " se reproducirá a continuación" : " se reproducirán a continuación"));
    else
        report(songs(n) + (n == 1 ? " añadida a la cola" : " añadidas a la cola"));
}

// Every change of the queue: the view stays on a real row, the desktop hears of it, and
// the file is written once things are quiet.
void AppController::queueChanged() {
    const int count = static_cast<int>(playback_->queue().order.size());
    state_.queueView.cursor = std::clamp(state_.queueView.cursor, 0, std::max(0, count - 1));
    scrollQueueToCursor();
    if (nowPlaying_) nowPlaying_->updateQueue(playback_->queue());
    saveQueue(false);
    requestRender();
}

// --- The queue view

void AppController::scrollQueueToCursor() {
    const int rows = Overlays::queueRows(layout_.size.width, layout_.size.height);
    const int count = static_cast<int>(playback_->queue().order.size());
    ListViewport& v = state_.queueView;
    if (rows < 1) return;
    if (v.cursor < v.offset) v.offset = v.cursor;
    if (v.cursor >= v.offset + rows) v.offset = v.cursor - rows + 1;
    v.offset = std::clamp(v.offset, 0, std::max(0, count - rows));
}

void AppController::openQueue() {
    state_.overlay = Overlay::queue();
    const auto& q = playback_->queue();
    state_.queueView = {};
    state_.queueView.cursor = q.position.value_or(0);
    // The playing entry near the top, with one row of what came before.
    state_.queueView.offset = std::max(0, state_.queueView.cursor - 1);
    scrollQueueToCursor();
}

void AppController::handleQueueKey(const Key& key) {
    const int count = static_cast<int>(playback_->queue().order.size());
    const int rows = std::max(1, Overlays::queueRows(layout_.size.width, layout_.size.height));
    int& cursor = state_.queueView.cursor;
    const auto at = static_cast<std::size_t>(std::max(0, cursor));
    using K = Key::Kind;
    if (key.kind == K::escape || isChar(key, "q") || isChar(key, "c")) {
        state_.overlay = Overlay::none();
        return;
    }
    if (key.kind == K::up || isChar(key, "k")) {
        --cursor;
    } else if (key.kind == K::down || isChar(key, "j")) {
        ++cursor;
    } else if (key.kind == K::pageUp) {
        cursor -= rows;
    } else if (key.kind == K::pageDown) {
        cursor += rows;
    } else if (key.kind == K::home) {
        cursor = 0;
    } else if (key.kind == K::end) {
        cursor = count - 1;
    } else if (key.kind == K::enter) {
        if (count > 0) playback_->playAt(at);
    } else if (isChar(key, "J") || key.kind == K::shiftDown) {
        if (playback_->moveAt(at, 1)) ++cursor;
    } else if (isChar(key, "K") || key.kind == K::shiftUp) {
        if (playback_->moveAt(at, -1)) --cursor;
    } else if (isChar(key, "d") || key.kind == K::delete_) {
        if (count > 0 && !playback_->removeAt(at))
            report("La canción que suena no se quita de la cola: pasa a otra antes", true);
    } else if (isChar(key, "C")) {
        const std::size_t gone = playback_->clearUpcoming();
        if (gone == 0)
            report("No hay nada en la cola después de la canción que suena");
        else
            report(songs(gone) + (gone == 1 ? " quitada de la cola" : " quitadas de la cola"));
    }
    const int now = static_cast<int>(playback_->queue().order.size());
    cursor = std::clamp(cursor, 0, std::max(0, now - 1));
    scrollQueueToCursor();
}

void AppController::handleQueueMouse(const MouseEvent& event) {
    const Rect box = Overlays::queueBox(layout_.size.width, layout_.size.height);
    const int rows = box.height - 4;
    const int count = static_cast<int>(playback_->queue().order.size());
    ListViewport& v = state_.queueView;
    if (event.kind == MouseEvent::Kind::scrollUp || event.kind == MouseEvent::Kind::scrollDown) {
        const int n = event.kind == MouseEvent::Kind::scrollUp ? -3 : 3;
        v.offset = std::clamp(v.offset + n, 0, std::max(0, count - rows));
        v.cursor = std::clamp(v.cursor, v.offset, std::max(v.offset, v.offset + rows - 1));
        v.cursor = std::clamp(v.cursor, 0, std::max(0, count - 1));
        requestRender();
        return;
    }
    if (event.kind != MouseEvent::Kind::press) return;
    const bool twice = isDoubleClick(event.x, event.y);
    const int row = v.offset + (event.y - (box.y + 2));
    if (event.x <= box.x || event.x >= box.x + box.width - 1 || event.y < box.y + 2 ||
        event.y >= box.y + 2 + rows || row >= count)
        return;
    v.cursor = row;
    if (twice) playback_->playAt(static_cast<std::size_t>(row));
    requestRender();
}

// --- Yes/no questions

void AppController::confirm(std::string question, Task yes) {
    state_.question = std::move(question);
    confirmed_ = std::move(yes);
    state_.overlay = Overlay::prompt(PromptKind::confirm);
}

void AppController::handleConfirmKey(const Key& key) {
    state_.overlay = Overlay::none();
    Task yes = std::move(confirmed_);
    confirmed_ = nullptr;
    if (isChar(key, "s") || isChar(key, "S") || isChar(key, "y") || isChar(key, "Y")) {
        if (yes) yes();
    } else {
        report("Cancelado: no se cambió nada");
    }
}

// --- Play lists

fs::path AppController::playlistFolder() const {
    return settingsStore_.url().parent_path() / "listas";
}

fs::path AppController::queueFile() const {
    return settingsStore_.url().parent_path() / QueueFile::kName;
}

std::vector<PlaylistEntry> AppController::queueEntries() const {
    const auto& q = playback_->queue();
    const TrackTable& table = state_.index.table();
    std::vector<PlaylistEntry> entries;
    entries.reserve(q.order.size());
    for (int i : q.order) {
        PlaylistEntry e;
        e.path = q.paths[static_cast<std::size_t>(i)];
        if (auto id = table.find(e.path)) {
            e.title = std::string(table.displayTitle(*id));
            e.artist = std::string(table.name(table.artist(*id)));
            e.durationMs = table.durationMs(*id);
        } else {
            e.title = fs::path(e.path).stem().string();
        }
        entries.push_back(std::move(e));
    }
    return entries;
}

void AppController::refreshPlaylists() {
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(playlistFolder(), ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path& p = it->path();
        if (p.extension() != ".m3u8") continue;
        const std::string name = p.stem().string();
        if (Playlist::isValidName(name)) names.push_back(name);
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return text::lessNumeric(text::fold(a), text::fold(b));
    });
    if (names == state_.playlists) return;
    state_.playlists = std::move(names);
    const ListViewport kept = state_.artists;
    const auto shown = state_.shownArtist;
    state_.artistRows = state_.index.artistRows();
    if (!state_.playlists.empty()) {
        state_.artistRows.push_back(ArtistRow::letter("Listas"));
        for (const auto& name : state_.playlists)
            state_.artistRows.push_back(ArtistRow::playlist(name));
    }
    state_.artists = kept;
    state_.shownArtist = shown;
    if (!state_.artistRows.empty()) {
        state_.artists.cursor =
            std::clamp(state_.artists.cursor, 0, static_cast<int>(state_.artistRows.size()) - 1);
        const Focus saved = state_.focus;
        state_.focus = Focus::artists;
        moveCursor(0);
        state_.focus = saved;
    }
    requestRender();
}

void AppController::savePlaylist(const std::string& name, bool confirmed) {
    if (!Playlist::isValidName(name)) {
        report("Nombre de lista inválido: sin barras y sin punto al principio", true);
        return;
    }
    if (playback_->queue().order.empty()) {
        report("La cola está vacía: no hay nada que guardar", true);
        return;
    }
    const fs::path file = playlistFolder() / (name + ".m3u8");
    std::error_code ec;
    if (!confirmed && fs::exists(file, ec)) {
        confirm("La lista " + quoted(name) + " ya existe. ¿Reemplazarla?",
                [this, name] { savePlaylist(name, true); });
        return;
    }
    auto entries = std::make_shared<std::vector<PlaylistEntry>>(queueEntries());
    pool_.submit([this, alive = alive_.watch(), post = host_.post, entries, file, name] {
        const bool ok = AppPaths::writeAtomically(file, Playlist::write(*entries, std::nullopt));
        const std::size_t n = entries->size();
        post([this, alive, ok, n, name] {
            if (!alive) return;
            if (!ok) {
                report("No se pudo guardar la lista " + quoted(name), true);
                return;
            }
            refreshPlaylists();
            report("Lista guardada: " + name + " (" + songs(n) + ")");
        });
    });
}

void AppController::exportPlaylist(const std::string& typed, bool confirmed) {
    if (playback_->queue().order.empty()) {
        report("La cola está vacía: no hay nada que exportar", true);
        return;
    }
    fs::path file = userPath(typed);
    std::error_code ec;
    if (fs::is_directory(file, ec)) file /= "cola.m3u8";
    if (!Playlist::formatOf(file) || file.extension() == ".pls" || file.extension() == ".PLS")
        file += ".m3u8";
    if (!confirmed && fs::exists(file, ec)) {
        confirm(file.string() + " ya existe. ¿Reemplazarlo?",
                [this, path = file.string()] { exportPlaylist(path, true); });
        return;
    }
    auto entries = std::make_shared<std::vector<PlaylistEntry>>(queueEntries());
    pool_.submit([this, alive = alive_.watch(), post = host_.post, entries, file] {
        const bool ok =
            AppPaths::writeAtomically(file, Playlist::write(*entries, file.parent_path()));
        const std::size_t n = entries->size();
        post([this, alive, ok, n, file] {
            if (!alive) return;
            if (ok)
                report("Cola exportada: " + songs(n) + " en " + file.string());
            else
                report("No se pudo escribir " + file.string(), true);
        });
    });
}

void AppController::loadPlaylist(const std::string& typed) {
    fs::path file;
    std::error_code ec;
    if (Playlist::isValidName(typed) &&
        fs::is_regular_file(playlistFolder() / (typed + ".m3u8"), ec))
        file = playlistFolder() / (typed + ".m3u8");
    else
        file = userPath(typed);
    if (!fs::is_regular_file(file, ec)) {
        report("No existe la lista: " + typed, true);
        return;
    }
    const auto format = Playlist::formatOf(file);
    if (!format) {
        report("No es una lista .m3u, .m3u8 o .pls: " + typed, true);
        return;
    }
    pool_.submit([this, alive = alive_.watch(), post = host_.post, file, typed, format = *format] {
        std::string error;
        PlaylistImport result;
        if (auto bytes = readFile(file, error))
            result = Playlist::read(*bytes, format, file.parent_path(), isFile);
        else
            result.error = error;
        post([this, alive, result = std::move(result), typed]() mutable {
            if (!alive) return;
            if (!result.error.empty()) {
                report("No se pudo abrir la lista " + typed + ": " + result.error, true);
                return;
            }
            std::string counts = " · " + std::to_string(result.missing) +
                                 (result.missing == 1 ? " no encontrada" : " no encontradas");
            if (result.skipped > 0)
                counts += " · " + std::to_string(result.skipped) +
                          (result.skipped == 1 ? " omitida (URL u otra lista)"
                                               : " omitidas (URL u otras listas)");
            if (result.paths.empty()) {
                report("La lista no tiene canciones que se encuentren" + counts, true);
                return;
            }
            const std::size_t n = result.paths.size();
            playback_->play(std::move(result.paths), 0);
            report("Lista cargada: " + songs(n) + (result.missing || result.skipped ? counts : ""),
                   result.missing > 0);
        });
    });
}

void AppController::deletePlaylist(const std::string& name) {
    const fs::path file = playlistFolder() / (name + ".m3u8");
    std::error_code ec;
    if (!Playlist::isValidName(name) || !fs::is_regular_file(file, ec)) {
        report("No existe la lista: " + name, true);
        return;
    }
    confirm("¿Borrar la lista " + quoted(name) + "?", [this, name, file] {
        std::error_code ec;
        if (!fs::remove(file, ec) || ec) {
            report("No se pudo borrar la lista " + quoted(name), true);
            return;
        }
        refreshPlaylists();
        report("Lista borrada: " + name);
    });
}

// --- The queue between runs

void AppController::saveQueue(bool now) {
    if (queueFileFrozen_ || queueRestoring_) return;
    if (!queueWrites_) queueWrites_ = std::make_shared<QueueWrites>();
    const int generation = ++queueSaveGeneration_;
    auto write = [this, generation, writes = queueWrites_, file = queueFile()] {
        const auto& q = playback_->queue();
        auto saved = std::make_shared<SavedQueue>();
        saved->paths = q.paths;
        if (q.shuffle) saved->order = q.order;
        saved->position = q.position;
        saved->seconds = playback_->position();
        return [generation, writes, file, saved] {
            std::lock_guard guard(writes->lock);
            if (generation <= writes->written) return; // a later state is on disk already
            if (AppPaths::writeAtomically(file, QueueFile::encode(*saved)))
                writes->written = generation;
        };
    };
    if (now) {
        write()();
        return;
    }
    if (!host_.postDelayed) return;
    host_.postDelayed(kQueueQuiet, guarded([this, generation, write] {
                          if (generation == queueSaveGeneration_) pool_.submit(write());
                      }));
}

void AppController::restoreQueue() {
    const fs::path file = queueFile();
    std::error_code ec;
    if (!fs::exists(file, ec)) return;
    queueRestoring_ = true;
    pool_.submit([this, alive = alive_.watch(), post = host_.post, file] {
        std::string error;
        auto bytes = readFile(file, error);
        auto decoded = std::make_shared<QueueFile::Decoded>();
        if (bytes)
            *decoded = QueueFile::decode(*bytes);
        else
            decoded->problem = QueueFile::Problem::corrupt;
        // Entries whose file is gone are dropped; the current one stays current.
        SavedQueue& q = decoded->queue;
        std::vector<int> newIndex(q.paths.size(), -1);
        std::vector<std::string> kept;
        for (std::size_t i = 0; i < q.paths.size(); ++i)
            if (isFile(q.paths[i])) {
                newIndex[i] = static_cast<int>(kept.size());
                kept.push_back(std::move(q.paths[i]));
            }
        const std::size_t gone = q.paths.size() - kept.size();
        if (q.order.empty()) {
            q.order.resize(q.paths.size());
            for (std::size_t i = 0; i < q.order.size(); ++i)
                q.order[i] = static_cast<int>(i);
        }
        std::vector<int> order;
        std::optional<int> position;
        for (std::size_t at = 0; at < q.order.size(); ++at) {
            const int mapped = newIndex[static_cast<std::size_t>(q.order[at])];
            if (mapped < 0) continue;
            if (q.position && static_cast<std::size_t>(*q.position) == at)
                position = static_cast<int>(order.size());
            order.push_back(mapped);
        }
        if (!position) q.seconds = 0;
        q.paths = std::move(kept);
        q.order = std::move(order);
        q.position = position;
        post([this, alive, decoded, gone] {
            if (!alive) return;
            queueRestoring_ = false;
            switch (decoded->problem) {
            case QueueFile::Problem::none:
                break;
            case QueueFile::Problem::corrupt: {
                // Kept aside for whoever wants to look; a new one is written from now on.
                std::error_code ec;
                fs::rename(queueFile(), fs::path(queueFile()) += ".dañada", ec);
                report("La cola guardada estaba dañada: se recuperó lo legible y el archivo "
                       "quedó como cola.json.dañada",
                       true);
                break;
            }
            case QueueFile::Problem::newer:
                queueFileFrozen_ = true;
                report("La cola guardada es de una versión más nueva de Trovan: no se usa ni "
                       "se sobrescribe",
                       true);
                return;
            }
            // Something chosen meanwhile wins over the old queue.
            if (!playback_->queue().order.empty() || state_.playback.track) {
                saveQueue(false);
                return;
            }
            const SavedQueue& q = decoded->queue;
            if (!q.paths.empty()) {
                PlaybackQueue restored;
                restored.paths = q.paths;
                restored.order = q.order;
                restored.position = q.position;
                playback_->restore(std::move(restored), q.seconds);
            }
            if (gone > 0)
                report(songs(gone) + " de la cola ya no " +
                           (gone == 1 ? "existe: se quitó" : "existen: se quitaron"),
                       decoded->problem != QueueFile::Problem::none);
        });
    });
}

} // namespace trovan
