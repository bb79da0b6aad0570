// SPDX-License-Identifier: GPL-3.0-or-later
#include "tags/LyricsSource.h"

#include "config/AppPaths.h"
#include "media/SyncedLyricsFrame.h"
#include "media/TagLibFile.h"

#include <algorithm>
#include <cstdint>

namespace trovan {

namespace {

void appendUtf8(std::string& out, std::uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

bool validUtf8(const std::string& s) {
    std::size_t i = 0;
    while (i < s.size()) {
        const auto c = static_cast<unsigned char>(s[i]);
        int n = c < 0x80             ? 0
                : (c & 0xE0) == 0xC0 ? 1
                : (c & 0xF0) == 0xE0 ? 2
                : (c & 0xF8) == 0xF0 ? 3
                                     : -1;
        if (n < 0 || c == 0xC0 || c == 0xC1 ||
            i + static_cast<std::size_t>(n) >= s.size() + (n == 0))
            return false;
        for (int k = 1; k <= n; ++k)
            if ((static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]) & 0xC0) != 0x80)
                return false;
        i += static_cast<std::size_t>(n) + 1;
    }
    return true;
}

std::string fromUtf16(const std::string& bytes, bool little) {
    std::string out;
    auto unit = [&](std::size_t i) -> std::uint32_t {
        const auto a = static_cast<unsigned char>(bytes[i]),
                   b = static_cast<unsigned char>(bytes[i + 1]);
        return little ? (b << 8 | a) : (a << 8 | b);
    };
    for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
        std::uint32_t cp = unit(i);
        if (cp >= 0xD800 && cp < 0xDC00 && i + 3 < bytes.size()) {
            const std::uint32_t low = unit(i + 2);
            if (low >= 0xDC00 && low < 0xE000) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                i += 2;
            } else {
                cp = 0xFFFD;
            }
        } else if (cp >= 0xD800 && cp < 0xE000) {
            cp = 0xFFFD;
        }
        appendUtf8(out, cp);
    }
    return out;
}

} // namespace

std::filesystem::path LyricsSource::sidecarPath(const std::string& audio) {
    std::filesystem::path p(audio);
    p.replace_extension(".lrc");
    return p;
}

std::string LyricsSource::toUtf8(std::string bytes) {
    if (bytes.starts_with("\xEF\xBB\xBF")) return bytes.substr(3);
    if (bytes.starts_with("\xFF\xFE")) return fromUtf16(bytes, true);
    if (bytes.starts_with("\xFE\xFF")) return fromUtf16(bytes, false);
    if (validUtf8(bytes)) return bytes;
    std::string out;
    out.reserve(bytes.size() * 2);
    for (char c : bytes)
        appendUtf8(out, static_cast<unsigned char>(c));
    return out;
}

std::optional<std::string> LyricsSource::readSidecar(const std::string& audio,
                                                     std::string* problem) {
    const std::filesystem::path path = sidecarPath(audio);
    bool tooLarge = false;
    auto bytes = AppPaths::readCapped(path, maxSidecarBytes, &tooLarge);
    if (tooLarge && problem)
        *problem = "La letra " + path.filename().string() + " es demasiado grande (más de 4 MB)";
    // Gone or unreadable: the tag's lyrics are shown instead.
    if (!bytes) return std::nullopt;
    return toUtf8(std::move(*bytes));
}

LoadedLyrics LyricsSource::load(const std::string& audio) {
    LoadedLyrics out;
    std::string tagText;
    if (auto file = TagLibFile::open(audio)) tagText = file->value("LYRICS").value_or("");
    const std::optional<std::string> sidecar = readSidecar(audio, &out.problem);

    if (sidecar) {
        if (auto lrc = Lrc::parse(*sidecar)) {
            out.origin = LyricsOrigin::sidecar;
            out.timed = std::move(lrc);
            return out;
        }
    }
    if (auto lrc = Lrc::parse(tagText)) {
        out.timed = std::move(lrc);
        return out;
    }
    if (auto frame = SyncedLyricsFrame::read(audio); !frame.empty()) {
        Lrc lrc;
        for (auto& [ms, text] : frame)
            lrc.lines.push_back({ms, std::move(text)});
        std::stable_sort(lrc.lines.begin(), lrc.lines.end(),
                         [](const LrcLine& a, const LrcLine& b) { return a.ms < b.ms; });
        out.origin = LyricsOrigin::sylt;
        out.timed = std::move(lrc);
        return out;
    }
    if (tagText.empty() && sidecar) {
        out.origin = LyricsOrigin::sidecar;
        out.plain = *sidecar;
        return out;
    }
    out.plain = std::move(tagText);
    return out;
}

LyricsSource::Editable LyricsSource::editable(const std::string& audio) {
    LoadedLyrics loaded = load(audio);
    switch (loaded.origin) {
    case LyricsOrigin::sidecar:
        return {LyricsOrigin::sidecar, readSidecar(audio, nullptr).value_or("")};
    case LyricsOrigin::sylt:
        return {LyricsOrigin::tag, loaded.timed ? loaded.timed->serialize() : std::string()};
    case LyricsOrigin::tag:
        break;
    }
    auto file = TagLibFile::open(audio);
    return {LyricsOrigin::tag, file ? file->value("LYRICS").value_or("") : std::string()};
}

bool LyricsSource::writeSidecar(const std::string& audio, const std::string& text) {
    return AppPaths::writeAtomically(sidecarPath(audio), text);
}

} // namespace trovan
