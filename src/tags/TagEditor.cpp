// SPDX-License-Identifier: GPL-3.0-or-later
#include "tags/TagEditor.h"

#include "library/LibraryStore.h"

#include <algorithm>
#include <map>
#include <set>
#include <sys/stat.h>
#include <thread>

namespace trovan {

TagEditor::TagEditor(std::shared_ptr<LibraryStore> store, std::shared_ptr<WriteJournal> journal)
    : store_(std::move(store)), journal_(std::move(journal)) {}

bool TagEditor::stopAndWait(std::chrono::milliseconds timeout, std::size_t& written,
                            std::size_t& total) {
    stop_ = true;
    std::unique_lock lock(progressMutex_);
    const bool idle = idle_.wait_for(lock, timeout, [this] { return !busy_; });
    written = written_;
    total = total_;
    return idle;
}

std::vector<PropertyMap> TagEditor::properties(const std::vector<std::string>& paths) {
    std::vector<PropertyMap> out;
    out.reserve(paths.size());
    for (const auto& path : paths) {
        auto file = TagLibFile::openForReading(path);
        out.push_back(file ? file->properties() : PropertyMap{});
    }
    return out;
}

std::string TagEditor::lyrics(const std::string& path) {
    auto file = TagLibFile::openForReading(path);
    return file ? file->value("LYRICS").value_or("") : std::string();
}

TagWriteResult TagEditor::apply(const TagPatch& patch, const std::vector<std::string>& paths) {
    std::uint64_t growth = 0;
    for (const auto& [key, values] : patch.changes)
        for (const auto& v : values)
            growth += key.size() + v.size() + 16;
    return write(
        paths,
        [&patch](TagLibFile& file) {
            for (const auto& key : patch.remove)
                file.remove(key);
            for (const auto& [key, values] : patch.changes)
                file.set(key, values);
            // A key the format cannot hold (MP4 knows a fixed set, Xiph names exclude
            // "=") is dropped by TagLib without a word: the file is not written then.
            const auto now = file.properties();
            for (const auto& [key, values] : patch.changes)
                if (!now.count(key) && std::any_of(values.begin(), values.end(),
                                                   [](const auto& v) { return !v.empty(); }))
                    return false;
            return true;
        },
        growth);
}

TagWriteResult TagEditor::setPicture(const std::optional<Picture>& picture,
                                     const std::vector<std::string>& paths) {
    if (picture && picture->data.size() > Picture::maxBytes) return {{}, paths};
    std::optional<Picture> stored = picture;
    if (stored)
        if (auto mime = Picture::mimeTypeOf(stored->data); !mime.empty()) stored->mimeType = mime;
    // Pictures in Xiph comments are stored in base64, a third larger.
    const std::uint64_t growth = stored ? stored->data.size() / 3 * 4 + 1024 : 0;
    return write(
        paths, [&stored](TagLibFile& file) { return file.setPicture(stored); }, growth);
}

TagWriteResult TagEditor::write(const std::vector<std::string>& paths, const SafeWrite::Edit& body,
                                std::uint64_t growth) {
    std::lock_guard lock(writing_);
    {
        std::lock_guard progress(progressMutex_);
        busy_ = true;
        written_ = 0;
        total_ = paths.size();
    }
    // Paths that name one file (hard links, links, a path given twice) form one unit,
    // written in order by one thread: two writers never hold the same file.
    std::vector<std::vector<std::size_t>> units;
    {
        std::map<std::pair<dev_t, ino_t>, std::size_t> unitOf;
        for (std::size_t i = 0; i < paths.size(); ++i) {
            struct stat st {};
            if (::stat(paths[i].c_str(), &st) == 0) {
                auto [at, fresh] = unitOf.try_emplace({st.st_dev, st.st_ino}, units.size());
                if (!fresh) {
                    units[at->second].push_back(i);
                    continue;
                }
            }
            units.push_back({i});
        }
    }
    // Two files in hand at once: while one waits for the disk to sync, the other is
    // copied and checked.
    enum class Outcome : char { skipped, failed, written };
    std::vector<Outcome> outcomes(paths.size(), Outcome::skipped);
    std::vector<std::optional<Track>> tracks(paths.size());
    std::atomic<std::size_t> nextUnit{0};
    const SafeWrite::Context context{journal_.get(), &stop_};
    auto work = [&] {
        for (std::size_t u; (u = nextUnit++) < units.size();)
            for (std::size_t i : units[u]) {
                if (stop_) break;
                if (!SafeWrite::write(paths[i], body, growth, context))
                    tracks[i] = Track::read(paths[i]);
                outcomes[i] = tracks[i] ? Outcome::written : Outcome::failed;
                std::lock_guard progress(progressMutex_);
                if (tracks[i]) ++written_;
            }
    };
    {
        std::vector<std::jthread> helpers;
        for (std::size_t n = 1; n < std::min<std::size_t>(units.size(), workers_); ++n)
            helpers.emplace_back(work);
        work();
    }
    TagWriteResult result;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        if (outcomes[i] == Outcome::written)
            result.updated.push_back(std::move(*tracks[i]));
        else if (outcomes[i] == Outcome::failed)
            result.failed.push_back(paths[i]);
        else
            ++result.skipped;
    }
    if (store_ && !result.updated.empty()) {
        try {
            store_->apply(result.updated, {});
        } catch (const std::exception&) {
            // The files are written; the next scan sees their new stamps and stores them.
        }
    }
    {
        std::lock_guard progress(progressMutex_);
        busy_ = false;
    }
    idle_.notify_all();
    return result;
}

} // namespace trovan
