// SPDX-License-Identifier: GPL-3.0-or-later
// :analyze — the loudness of the chosen tracks, and of each album chosen whole, measured
// on the worker pool a few tracks at a time (the pool stays free for covers and scans),
// with the count in the header and Esc to stop; then the ReplayGain tags written through
// the checked tag write, which also updates the library.

#include "app/AppController.h"

#include "app/WorkerPool.h"

#include "playback/PlaybackController.h"
#include "tags/LoudnessAnalysis.h"
#include "tags/TagEditor.h"

#include <algorithm>
#include <atomic>
#include <unordered_map>
#include <unordered_set>

namespace trovan {

struct AppController::LoudnessRun {
    std::vector<std::string> paths;
    // Per path: the album it is measured with (-1: alone, or only part of its album
    // was chosen, so its album tags are left as they are).
    std::vector<int> album;
    std::vector<char> partial; // only part of its album chosen
    int albums = 0;
    std::vector<LoudnessAnalysis::Track> results;  // each written by its own job only
    std::vector<std::vector<std::size_t>> members; // the tracks of each album, in order
    std::vector<std::optional<double>> joined;     // each album's loudness, tracks joined
    std::size_t jobs() const { return paths.size() + members.size(); }
    std::atomic<bool> cancel{false};
    std::size_t next = 0, done = 0;
};

void AppController::analyzeLoudness() {
    if (loudness_) {
        report("Ya se está analizando (Esc lo detiene)", true);
        return;
    }
    auto paths = targetPaths();
    if (paths.empty()) {
        report("Selecciona una canción, un álbum o un artista", true);
        return;
    }
    auto run = std::make_shared<LoudnessRun>();
    run->paths = paths;
    run->album.assign(paths.size(), -1);
    run->partial.assign(paths.size(), 0);
    run->results.resize(paths.size());
    // Albums whose every track was chosen are measured as a whole.
    std::unordered_map<std::string, std::size_t> chosen;
    for (std::size_t i = 0; i < paths.size(); ++i)
        chosen.emplace(paths[i], i);
    const auto& index = state_.index;
    for (const auto& artist : index.artists)
        for (const auto& album : artist.albums) {
            if (album.title.empty()) continue;
            std::vector<std::size_t> members;
            bool whole = true;
            for (auto id : album.tracks()) {
                auto it = chosen.find(index.table().path(id));
                if (it == chosen.end())
                    whole = false;
                else
                    members.push_back(it->second);
            }
            if (!whole)
                for (auto i : members)
                    run->partial[i] = 1;
            if (!whole || members.size() < 2) continue;
            for (auto i : members)
                run->album[i] = run->albums;
            ++run->albums;
            run->members.push_back(std::move(members));
        }
    run->joined.resize(run->members.size());
    loudness_ = run;
    state_.analyzing = IndexingProgress{0, static_cast<int>(run->jobs())};
    for (int i = 0; i < std::max(1, pool_.size()); ++i)
        measureNext(run);
}

void AppController::measureNext(const std::shared_ptr<LoudnessRun>& run) {
    if (run->next >= run->paths.size() || run->cancel.load()) return;
    const std::size_t i = run->next++;
    pool_.submit([this, alive = alive_.watch(), post = host_.post, run, i] {
        if (!run->cancel.load())
            run->results[i] = LoudnessAnalysis::measure(run->paths[i], &run->cancel);
        post([this, alive, run] {
            if (!alive || loudness_ != run) return;
            ++run->done;
            state_.analyzing =
                IndexingProgress{static_cast<int>(run->done), static_cast<int>(run->jobs())};
            requestRender();
            if (run->cancel.load()) {
                if (run->done == run->next) finishAnalysis(run);
                return;
            }
            measureNext(run);
            if (run->done == run->jobs()) finishAnalysis(run);
        });
    });
}

void AppController::cancelAnalysis() {
    if (!loudness_) return;
    loudness_->cancel = true;
    report("Análisis detenido: no se escribió nada");
    // The jobs under way stop at their next block; nothing is written.
    if (loudness_->done == loudness_->next) finishAnalysis(loudness_);
}

void AppController::finishAnalysis(const std::shared_ptr<LoudnessRun>& run) {
    loudness_.reset();
    state_.analyzing.reset();
    requestRender();
    if (run->cancel.load()) return;
    std::vector<LoudnessAnalysis::Album> albums;
    for (std::size_t a = 0; a < run->members.size(); ++a) {
        std::vector<const LoudnessAnalysis::Track*> tracks;
        for (auto t : run->members[a])
            tracks.push_back(&run->results[t]);
        albums.push_back(LoudnessAnalysis::album(tracks, run->joined[a]));
    }

    std::vector<std::string> paths;
    std::vector<TagPatch> patches;
    std::size_t silent = 0;
    std::string unreadable;
    std::size_t failed = 0;
    for (std::size_t i = 0; i < run->paths.size(); ++i) {
        const auto& t = run->results[i];
        if (!t.ok) {
            if (++failed == 1) unreadable = t.error;
            continue;
        }
        if (t.silent) {
            ++silent;
            continue;
        }
        const bool inAlbum = run->album[i] >= 0;
        LoudnessAnalysis::Album own{t.lufs, t.peak};
        auto patch = LoudnessAnalysis::patch(
            t, inAlbum ? albums[static_cast<std::size_t>(run->album[i])] : own);
        if (!patch) continue;
        // Only part of its album was measured: the album's tags stay as they were.
        if (run->partial[i]) {
            patch->changes.erase("REPLAYGAIN_ALBUM_GAIN");
            patch->changes.erase("REPLAYGAIN_ALBUM_PEAK");
        }
        paths.push_back(t.path);
        patches.push_back(std::move(*patch));
    }
    std::string notes;
    if (silent > 0)
        notes += " · " + std::to_string(silent) +
                 " sin volumen medible (silencio o menos de 400 ms): sin etiquetas";
    if (failed > 0) notes += " · " + std::to_string(failed) + " sin analizar: " + unreadable;
    if (paths.empty()) {
        report("Nada que escribir" + notes, failed > 0);
        return;
    }
    startWrite(
        std::move(paths), "Ganancias escritas" + notes, false,
        [patches = std::move(patches)](TagEditor& editor, const std::vector<std::string>& p) {
            TagWriteResult all;
            for (std::size_t i = 0; i < p.size(); ++i) {
                auto r = editor.apply(patches[i], {p[i]});
                all.updated.insert(all.updated.end(), r.updated.begin(), r.updated.end());
                all.failed.insert(all.failed.end(), r.failed.begin(), r.failed.end());
                all.skipped += r.skipped;
            }
            return all;
        });
}

} // namespace trovan
