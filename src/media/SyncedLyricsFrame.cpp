// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/SyncedLyricsFrame.h"

#include <taglib/aifffile.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/synchronizedlyricsframe.h>
#include <taglib/wavfile.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace trovan {

namespace {

std::string lowerExtension(const std::string& path) {
    const auto slash = path.find_last_of('/');
    const auto dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    std::string ext = path.substr(dot + 1);
    for (char& c : ext)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

std::vector<std::pair<std::int64_t, std::string>> fromTag(TagLib::ID3v2::Tag* tag) {
    std::vector<std::pair<std::int64_t, std::string>> out;
    if (!tag) return out;
    for (auto* frame : tag->frameList("SYLT")) {
        auto* sylt = dynamic_cast<TagLib::ID3v2::SynchronizedLyricsFrame*>(frame);
        if (!sylt ||
            sylt->timestampFormat() != TagLib::ID3v2::SynchronizedLyricsFrame::AbsoluteMilliseconds)
            continue;
        for (const auto& entry : sylt->synchedText()) {
            // Taggers often start each entry with the line break that precedes it.
            std::string text = entry.text.to8Bit(true);
            text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
            while (!text.empty() && text.front() == '\n')
                text.erase(text.begin());
            while (!text.empty() && text.back() == '\n')
                text.pop_back();
            std::replace(text.begin(), text.end(), '\n', ' ');
            out.emplace_back(static_cast<std::int64_t>(entry.time), std::move(text));
        }
        if (!out.empty()) break;
    }
    return out;
}

} // namespace

std::vector<std::pair<std::int64_t, std::string>> SyncedLyricsFrame::read(const std::string& path) {
    const std::string ext = lowerExtension(path);
    if (ext == "mp3" || ext == "mp2" || ext == "mpga") {
        TagLib::MPEG::File file(path.c_str(), false);
        if (file.isValid() && file.hasID3v2Tag()) return fromTag(file.ID3v2Tag());
    } else if (ext == "wav") {
        TagLib::RIFF::WAV::File file(path.c_str(), false);
        if (file.isValid() && file.hasID3v2Tag()) return fromTag(file.ID3v2Tag());
    } else if (ext == "aif" || ext == "aiff" || ext == "aifc") {
        TagLib::RIFF::AIFF::File file(path.c_str(), false);
        if (file.isValid() && file.hasID3v2Tag()) return fromTag(file.tag());
    }
    return {};
}

} // namespace trovan
