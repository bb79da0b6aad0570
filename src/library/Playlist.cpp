// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/Playlist.h"

#include "text/Text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <map>

namespace trovan {

namespace fs = std::filesystem;

namespace {

std::string lowerAscii(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string_view trim(std::string_view s) {
    return text::trim(s, " \t\r");
}

// A line as UTF-8: kept when it already is, else read as Latin-1 (what Windows
// programs write in .m3u files).
std::string asUtf8(std::string_view line) {
    if (text::isValidUtf8(line)) return std::string(line);
    std::string out;
    out.reserve(line.size() * 2);
    for (unsigned char c : line) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

int hexValue(char h) {
    if (h >= '0' && h <= '9') return h - '0';
    h = static_cast<char>(std::tolower(static_cast<unsigned char>(h)));
    return h >= 'a' && h <= 'f' ? h - 'a' + 10 : -1;
}

// The path of a file:// URL, percent escapes decoded; none when it names another
// machine or holds a NUL.
std::optional<std::string> fileUrlPath(std::string_view rest) {
    if (rest.starts_with("localhost/")) rest.remove_prefix(9);
    if (rest.empty() || rest.front() != '/') return std::nullopt;
    std::string path;
    for (std::size_t i = 0; i < rest.size(); ++i) {
        char c = rest[i];
        if (c == '%' && i + 2 < rest.size()) {
            const int hi = hexValue(rest[i + 1]), lo = hexValue(rest[i + 2]);
            if (hi >= 0 && lo >= 0) {
                c = static_cast<char>(hi * 16 + lo);
                i += 2;
                if (c == '\0') return std::nullopt;
            }
        }
        path += c;
    }
    return path;
}

bool hasScheme(std::string_view entry, std::string_view* scheme) {
    const auto colon = entry.find("://");
    if (colon == std::string_view::npos || colon < 2) return false;
    for (std::size_t i = 0; i < colon; ++i) {
        const char c = entry[i];
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.'))
            return false;
    }
    if (!std::isalpha(static_cast<unsigned char>(entry[0]))) return false;
    *scheme = entry.substr(0, colon);
    return true;
}

bool hasDrive(std::string_view p) {
    return p.size() >= 2 && std::isalpha(static_cast<unsigned char>(p[0])) && p[1] == ':';
}

} // namespace

std::optional<Playlist::Format> Playlist::formatOf(const fs::path& path) {
    const std::string ext = lowerAscii(path.extension().string());
    if (ext == ".m3u" || ext == ".m3u8") return Format::m3u;
    if (ext == ".pls") return Format::pls;
    return std::nullopt;
}

std::optional<std::vector<std::string>> Playlist::entries(std::string_view bytes, Format format) {
    if (bytes.find('\0') != std::string_view::npos) return std::nullopt;
    if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
    std::vector<std::string> out;
    std::map<long long, std::string> numbered; // PLS: FileN= in the order of N
    std::size_t start = 0;
    while (start <= bytes.size()) {
        std::size_t end = bytes.find('\n', start);
        if (end == std::string_view::npos) end = bytes.size();
        std::string_view line = trim(bytes.substr(start, end - start));
        start = end + 1;
        if (line.empty()) continue;
        if (format == Format::m3u) {
            if (line.front() != '#') out.push_back(asUtf8(line));
            continue;
        }
        const auto eq = line.find('=');
        if (eq == std::string_view::npos || lowerAscii(line.substr(0, 4)) != "file") continue;
        long long n = 0;
        const std::string_view digits = trim(line.substr(4, eq - 4));
        auto [p, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
        if (ec != std::errc() || p != digits.data() + digits.size()) continue;
        std::string_view value = trim(line.substr(eq + 1));
        if (!value.empty()) numbered.emplace(n, asUtf8(value));
    }
    for (auto& [n, value] : numbered)
        out.push_back(std::move(value));
    return out;
}

Playlist::Resolved Playlist::resolve(std::string_view entry, const fs::path& folder,
                                     const Exists& exists) {
    Resolved r;
    std::string text(entry);
    if (std::string_view scheme; hasScheme(entry, &scheme)) {
        auto path = lowerAscii(scheme) == "file" ? fileUrlPath(entry.substr(scheme.size() + 3))
                                                 : std::nullopt;
        if (!path) {
            r.kind = Resolved::Kind::skipped;
            return r;
        }
        text = *path;
        // file:///C:/Music/x.mp3
        if (text.size() >= 3 && text[0] == '/' && hasDrive(std::string_view(text).substr(1)))
            text.erase(0, 1);
    }
    if (text.empty() || text.find('\0') != std::string::npos) {
        r.kind = Resolved::Kind::skipped;
        return r;
    }

    // Windows: a drive letter or backslashes. A path from the root of a drive cannot be
    // the same here; the music is looked for beside the list, dropping leading folders.
    bool windowsRooted = false;
    if (hasDrive(text) || text.find('\\') != std::string::npos) {
        std::replace(text.begin(), text.end(), '\\', '/');
        if (hasDrive(text)) text.erase(0, 2);
        windowsRooted = !text.empty() && text.front() == '/';
    }

    const fs::path given(text);
    if (const auto f = formatOf(given); f) {
        r.kind = Resolved::Kind::skipped; // lists inside lists are not followed
        return r;
    }
    fs::path full =
        given.is_absolute() ? given.lexically_normal() : (folder / given).lexically_normal();
    r.path = full.string();
    if (exists(r.path)) {
        r.kind = Resolved::Kind::found;
        return r;
    }
    if (windowsRooted) {
        // Beside the list, or one or two folders up (lists often sit in a folder of
        // their own next to the music), the longest tail of the path that is there.
        std::vector<fs::path> parts;
        for (const auto& part : given.relative_path())
            if (!part.empty()) parts.push_back(part);
        fs::path base = folder;
        for (int up = 0; up < 3 && !base.empty(); ++up, base = base.parent_path()) {
            for (std::size_t from = 0; from < parts.size(); ++from) {
                fs::path candidate = base;
                for (std::size_t i = from; i < parts.size(); ++i)
                    candidate /= parts[i];
                if (exists(candidate.string())) {
                    r.kind = Resolved::Kind::found;
                    r.path = candidate.lexically_normal().string();
                    return r;
                }
            }
            if (base == base.root_path()) break;
        }
    }
    r.kind = Resolved::Kind::missing;
    return r;
}

PlaylistImport Playlist::read(std::string_view bytes, Format format, const fs::path& folder,
                              const Exists& exists) {
    PlaylistImport result;
    auto list = entries(bytes, format);
    if (!list) {
        result.error = "no es una lista de reproducción";
        return result;
    }
    for (const auto& entry : *list) {
        Resolved r = resolve(entry, folder, exists);
        switch (r.kind) {
        case Resolved::Kind::found:
            result.paths.push_back(std::move(r.path));
            break;
        case Resolved::Kind::missing:
            ++result.missing;
            break;
        case Resolved::Kind::skipped:
            ++result.skipped;
            break;
        }
    }
    return result;
}

std::string Playlist::write(const std::vector<PlaylistEntry>& entries,
                            const std::optional<fs::path>& relativeTo) {
    auto oneLine = [](std::string_view s) {
        std::string out(s);
        std::replace_if(
            out.begin(), out.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
        return out;
    };
    std::string out = "#EXTM3U\n";
    for (const auto& e : entries) {
        if (e.path.empty() || e.path.find_first_of("\n\r") != std::string::npos) continue;
        std::string path = e.path;
        if (relativeTo) {
            const fs::path rel =
                fs::path(e.path).lexically_normal().lexically_relative(*relativeTo);
            if (!rel.empty()) path = rel.string();
            // A name starting with '#' would read as a comment.
            if (path.front() == '#') path = "./" + path;
        }
        const long long seconds =
            e.durationMs > 0 ? std::llround(static_cast<double>(e.durationMs) / 1000.0) : -1;
        std::string label = oneLine(e.title);
        if (!e.artist.empty()) label = oneLine(e.artist) + " - " + label;
        out += "#EXTINF:" + std::to_string(seconds) + "," + label + "\n" + path + "\n";
    }
    return out;
}

bool Playlist::isValidName(std::string_view name) {
    if (name.empty() || name.size() > 200 || name.front() == '.') return false;
    if (!text::isValidUtf8(name)) return false;
    return std::none_of(name.begin(), name.end(), [](char c) {
        return c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    });
}

} // namespace trovan
