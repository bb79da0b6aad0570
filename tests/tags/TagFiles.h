// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Files for the tag-writing tests: tagged copies of generated fixtures and
// the working files a write may leave beside them.

#include "support/Fixtures.h"
#include "tags/SafeWrite.h"

#include <string>
#include <vector>

namespace trovan::tagfiles {

namespace fx = trovan::fixtures;

// The names of our working files in `dir`.
inline std::vector<std::string> workFiles(const std::filesystem::path& dir) {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        if (SafeWrite::isWorkFileName(e.path().filename().string()))
            out.push_back(e.path().filename().string());
    return out;
}

// A tone with four tags and two covers (a JPEG, then a PNG).
inline fx::Tone tagged(fx::Format format, double seconds = 0.5, fx::Wave wave = fx::Wave::sine) {
    fx::Tone tone;
    tone.format = format;
    tone.wave = wave;
    tone.seconds = seconds;
    tone.tags = {{"TITLE", {"Viejo"}},
                 {"ARTIST", {"Alguien"}},
                 {"COMMENT", {"borrar"}},
                 {"LYRICS", {"la la"}}};
    fx::Cover png;
    png.kind = fx::ImageKind::png;
    png.color = "blue";
    tone.covers = {fx::Cover{}, png};
    return tone;
}

// A fresh copy of that tone as dir/name.<extension>.
inline std::filesystem::path copyOf(fx::Format format, const std::filesystem::path& dir,
                                    const std::string& name, double seconds = 0.5,
                                    fx::Wave wave = fx::Wave::sine) {
    const std::string ext = fx::extension(format);
    auto cached =
        fx::cached("editor-" + fx::name(format) + "." + ext, tagged(format, seconds, wave));
    return fx::copyTo(cached, dir, name + "." + ext);
}

} // namespace trovan::tagfiles
