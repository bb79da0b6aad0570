#include "tags/TagEditor.h"

#include "library/LibraryStore.h"

#include <algorithm>
#include <set>

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
    TagWriteResult result;
    const SafeWrite::Context context{journal_.get(), &stop_};
    for (const auto& path : paths) {
        if (stop_) {
            ++result.skipped;
            continue;
        }
        if (SafeWrite::write(path, body, growth, context)) {
            result.failed.push_back(path);
        } else if (auto track = Track::read(path)) {
            result.updated.push_back(std::move(*track));
        } else {
            result.failed.push_back(path);
        }
        std::lock_guard progress(progressMutex_);
        written_ = result.updated.size();
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
