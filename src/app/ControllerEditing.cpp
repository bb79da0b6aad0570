// SPDX-License-Identifier: GPL-3.0-or-later
// Tag editing: the in-screen form, the tag and lyrics documents in the user's editor,
// and the cover commands. File work runs on the worker pool; the playback controller
// decides whether the playing track must be let go while its file is rewritten.

#include "app/AppController.h"

#include "app/WorkerPool.h"
#include "media/ImageDecoder.h"
#include "playback/PlaybackController.h"
#include "state/CommandParser.h"
#include "tags/LyricsSource.h"
#include "tags/TagDocument.h"
#include "tags/TagEditor.h"
#include "tags/WriteJournal.h"
#include "terminal/ExternalEditor.h"
#include "text/Text.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace trovan {

namespace {

std::string fileName(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string expandHome(const std::string& path) {
    if (path == "~" || path.starts_with("~/")) {
        const char* home = std::getenv("HOME");
        if (home && *home) return std::string(home) + path.substr(1);
    }
    return path;
}

std::optional<std::vector<std::uint8_t>> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
    if (in.bad()) return std::nullopt;
    return bytes;
}

constexpr const char* kNoTargets = "Selecciona una canción, un álbum o un artista";

} // namespace

// --- The form

void AppController::openTagForm() {
    readTargetTags([this](std::vector<std::string> paths, std::vector<PropertyMap> properties) {
        state_.form = TagForm(std::move(paths), properties);
        state_.overlay = Overlay::tagForm();
        requestRender();
    });
}

void AppController::readTargetTags(TargetTags then) {
    auto paths = targetPaths();
    if (paths.empty()) {
        report(kNoTargets, true);
        return;
    }
    pool_.submit([this, alive = alive_.watch(), post = host_.post, paths = std::move(paths),
                  then = std::move(then)]() mutable {
        auto properties = TagEditor::properties(paths);
        post([alive, paths = std::move(paths), properties = std::move(properties),
              then = std::move(then)]() mutable {
            if (alive) then(std::move(paths), std::move(properties));
        });
    });
}

void AppController::handleFormKey(const Key& key) {
    if (!state_.form) {
        state_.overlay = Overlay::none();
        return;
    }
    TagForm& form = *state_.form;
    const int count = static_cast<int>(form.fields.size());
    if (key.kind == Key::Kind::escape) {
        state_.form.reset();
        state_.overlay = Overlay::none();
    } else if (key.kind == Key::Kind::enter || key == Key::ctrl('s')) {
        saveForm();
    } else if (count == 0) {
        return;
    } else if (key.kind == Key::Kind::tab || key.kind == Key::Kind::down) {
        form.focused = (form.focused + 1) % count;
    } else if (key.kind == Key::Kind::backTab || key.kind == Key::Kind::up) {
        form.focused = (form.focused + count - 1) % count;
    } else {
        form.focused = std::clamp(form.focused, 0, count - 1);
        form.fields[static_cast<std::size_t>(form.focused)].input.handle(key);
    }
}

void AppController::saveForm() {
    if (!state_.form) return;
    TagForm form = std::move(*state_.form);
    state_.form.reset();
    state_.overlay = Overlay::none();
    TagPatch patch = form.patch();
    if (patch.isEmpty()) {
        report("Sin cambios");
        return;
    }
    report("Guardando tags…");
    host_.post(guarded([this, patch = std::move(patch), paths = std::move(form.paths)] {
        writeTags(patch, paths);
    }));
}

// --- Documents in the user's editor

void AppController::editAllTags() {
    readTargetTags([this](std::vector<std::string> paths, std::vector<PropertyMap> properties) {
        auto edited = runEditor(TagDocument::render(properties), "tags.txt");
        if (!edited) return;
        auto [patch, problems] = TagDocument::parse(*edited, properties);
        if (!problems.empty()) {
            // Nothing is written from a document that does not read cleanly.
            report(problems.front() +
                       (problems.size() > 1 ? " (y " + std::to_string(problems.size() - 1) + " más)"
                                            : "") +
                       "; no se guardó nada",
                   true);
            return;
        }
        if (patch.isEmpty()) {
            report("Sin cambios");
            return;
        }
        report("Guardando tags…");
        writeTags(patch, paths);
    });
}

void AppController::editLyrics() {
    auto paths = targetPathsUnderCursor();
    if (paths.size() != 1) {
        report("Selecciona una canción", true);
        return;
    }
    pool_.submit([this, alive = alive_.watch(), post = host_.post, path = paths.front()] {
        // Timed lyrics keep their stamps as text, and go back where they came from; the
        // tag's other lyrics (other languages, other descriptions) are kept.
        LyricsSource::Editable old = LyricsSource::editable(path);
        auto all = TagEditor::properties({path}).front()["LYRICS"];
        post([this, alive, path, old = std::move(old), all = std::move(all)] {
            if (!alive) return;
            auto edited = runEditor(old.text, "letra.txt");
            if (!edited) return;
            const std::string text(text::trim(*edited));
            if (text == text::trim(old.text)) {
                report("Sin cambios");
                return;
            }
            if (old.origin == LyricsOrigin::sidecar) {
                writeLyrics(path, old.origin, text.empty() ? text : text + "\n", "Letra guardada");
                return;
            }
            writeTags(TagDocument::lyricsPatch(all, text), {path});
        });
    });
}

std::optional<std::string> AppController::runEditor(const std::string& text,
                                                    const std::string& name) {
    auto edited = ExternalEditor::edit(text, name, terminal_);
    // Whatever the editor left on the screen is not what we last drew.
    if (screenInvalidated) screenInvalidated();
    requestRender();
    return edited;
}

// --- Covers

void AppController::setCover(const std::string& image) {
    auto paths = targetPaths();
    if (paths.empty()) {
        report(kNoTargets, true);
        return;
    }
    const std::string path = expandHome(image);
    pool_.submit([this, alive = alive_.watch(), post = host_.post, path,
                  paths = std::move(paths)]() mutable {
        // The type comes from the bytes, whatever the file's name says.
        std::string refused;
        std::optional<Picture> picture;
        std::error_code size;
        if (std::filesystem::file_size(path, size) > Picture::maxBytes && !size) {
            refused = "La imagen pesa más de 32 MiB: " + path;
        } else if (auto bytes = readBytes(path);
                   !bytes || bytes->empty() || !ImageDecoder::isImage(*bytes)) {
            refused = "No se pudo leer la imagen: " + path;
        } else if (bytes->size() > Picture::maxBytes) {
            refused = "La imagen pesa más de 32 MiB: " + path;
        } else if (auto mime = Picture::mimeTypeOf(*bytes); mime.empty()) {
            refused = "La carátula debe ser JPEG, PNG, GIF, BMP o WebP: " + path;
        } else {
            picture = Picture{std::move(*bytes), mime};
        }
        post([this, alive, refused, picture = std::move(picture), paths = std::move(paths)] {
            if (!alive) return;
            if (!refused.empty()) {
                report(refused, true);
                return;
            }
            writePicture(picture, "Carátula actualizada", paths);
        });
    });
}

void AppController::removeCover() {
    writePicture(std::nullopt, "Carátula eliminada", targetPaths());
}

void AppController::writePicture(std::optional<Picture> picture, const std::string& message,
                                 std::vector<std::string> paths) {
    if (paths.empty()) {
        report(kNoTargets, true);
        return;
    }
    startWrite(
        std::move(paths), message, true,
        [picture = std::move(picture)](TagEditor& editor, const std::vector<std::string>& p) {
            return editor.setPicture(picture, p);
        });
}

// --- Writing

void AppController::writeTags(const TagPatch& patch, std::vector<std::string> paths) {
    startWrite(std::move(paths), "Tags guardados", false,
               [patch](TagEditor& editor, const std::vector<std::string>& p) {
                   return editor.apply(patch, p);
               });
}

void AppController::startWrite(std::vector<std::string> paths, std::string success, bool picture,
                               WriteJob job) {
    playback_->beginFileWrite(paths);
    if (!tagEditor_) tagEditor_ = std::make_shared<TagEditor>(store_);
    ++writesInFlight_;
    pool_.submit([this, alive = alive_.watch(), post = host_.post, editor = tagEditor_,
                  paths = std::move(paths), success = std::move(success), picture,
                  job = std::move(job)] {
        TagWriteResult result = job(*editor, paths);
        post([this, alive, result = std::move(result), success, picture] {
            if (!alive) return;
            --writesInFlight_;
            // Whatever the user did meanwhile stands; a track let go comes back only if
            // nothing else was started.
            if (writesInFlight_ == 0) playback_->endFileWrite();
            if (picture && state_.playback.track &&
                std::any_of(result.updated.begin(), result.updated.end(), [&](const Track& t) {
                    return t.path == state_.playback.track->path;
                })) {
                loadCover(*state_.playback.track, true);
            }
            if (picture) {
                // Loaded again for the albums on screen once the library is reloaded.
                state_.albumCovers.clear();
                albumCoversLoading_.clear();
                ++*albumCoverGeneration_;
            } else if (state_.lyricsVisible) {
                loadLyrics();
            }
            finishWrite(result, success);
        });
    });
}

void AppController::recoverWrites() {
    pool_.submit([this, alive = alive_.watch(), post = host_.post] {
        auto recovery = WriteJournal::standard().recover();
        if (recovery.messages.empty() && recovery.restored == 0) return;
        post([this, alive, recovery = std::move(recovery)] {
            if (!alive) return;
            std::string text = recovery.restored > 0
                                   ? "Se deshicieron " + std::to_string(recovery.restored) +
                                         " escritura(s) interrumpida(s)"
                                   : std::string();
            for (const auto& m : recovery.messages)
                text += (text.empty() ? "" : " · ") + m;
            report(text, !recovery.messages.empty());
        });
    });
}

void AppController::finishWrite(const TagWriteResult& result, const std::string& success) {
    reloadLibrary([this, failed = result.failed, count = result.updated.size(), success] {
        // The player shows the record just re-read.
        playback_->refreshCurrentTrack();
        loadAlbumCovers();
        if (!failed.empty()) {
            report("No se pudo escribir " + std::to_string(failed.size()) +
                       " archivo(s): " + fileName(failed.front()),
                   true);
        } else {
            report(success + " en " + std::to_string(count) + (count == 1 ? " pista" : " pistas"));
        }
    });
}

} // namespace trovan
