#include "tags/TagDocument.h"

#include <algorithm>
#include <set>

namespace trovan {

namespace {

const std::vector<std::string> kCommonKeys = {"TITLE",    "ARTIST",      "ALBUMARTIST", "ALBUM",
                                              "DATE",     "TRACKNUMBER", "DISCNUMBER",  "GENRE",
                                              "COMPOSER", "COMMENT"};
const std::string kMixed = "<varios>";

std::string trimBlanks(const std::string& s) {
    const auto a = s.find_first_not_of(" \t");
    if (a == std::string::npos) return {};
    const auto b = s.find_last_not_of(" \t");
    return s.substr(a, b - a + 1);
}

const std::vector<std::string>& valuesOf(const PropertyMap& map, const std::string& key) {
    static const std::vector<std::string> none;
    auto it = map.find(key);
    return it == map.end() ? none : it->second;
}

} // namespace

std::vector<std::string> TagDocument::orderedKeys(const std::vector<PropertyMap>& files) {
    std::vector<std::string> keys = kCommonKeys;
    std::set<std::string> others;
    for (const auto& file : files)
        for (const auto& [key, values] : file)
            if (!excluded(key) &&
                std::find(kCommonKeys.begin(), kCommonKeys.end(), key) == kCommonKeys.end())
                others.insert(key);
    keys.insert(keys.end(), others.begin(), others.end());
    return keys;
}

std::string TagDocument::escape(const std::string& value) {
    std::string out;
    out.reserve(value.size());
    for (char c : value) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string TagDocument::unescape(const std::string& value) {
    std::string out;
    out.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\') {
            out += value[i];
        } else if (i + 1 < value.size()) {
            ++i;
            out += value[i] == 'n' ? '\n' : value[i];
        }
    }
    return out;
}

std::string TagDocument::render(const std::vector<PropertyMap>& files) {
    std::string out = "# Trovan · editando " + std::to_string(files.size()) +
                      (files.size() == 1 ? " pista\n" : " pistas\n");
    out += "# Una línea por valor:  CLAVE: valor   (repite la clave para varios valores)\n";
    out += "# Borra una línea para eliminar la etiqueta; agrega líneas para crear etiquetas "
           "nuevas.\n";
    out += "# <varios> = cada pista conserva su valor. Saltos de línea dentro de un valor: \\n\n";
    out += "\n";
    for (const auto& key : orderedKeys(files)) {
        const auto& first = files.empty() ? valuesOf({}, key) : valuesOf(files.front(), key);
        const bool same = std::all_of(files.begin(), files.end(), [&](const PropertyMap& f) {
            return valuesOf(f, key) == first;
        });
        if (!same) {
            out += key + ": " + kMixed + "\n";
        } else if (first.empty()) {
            out += key + ": \n";
        } else {
            for (const auto& value : first)
                out += key + ": " + escape(value) + "\n";
        }
    }
    return out;
}

TagPatch TagDocument::parse(const std::string& text, const std::vector<PropertyMap>& original) {
    std::map<std::string, std::vector<std::string>> values;
    std::set<std::string> kept;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = trimBlanks(text.substr(start, end - start));
        start = end + 1;
        // Editors that save with CRLF leave a carriage return at the end of each line.
        if (!line.empty() && line.back() == '\r')
            line = trimBlanks(line.substr(0, line.size() - 1));
        if (line.empty() || line[0] == '#') continue;
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string key = trimBlanks(line.substr(0, colon));
        for (char& c : key)
            if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (key.empty() || key.find(' ') != std::string::npos || excluded(key)) continue;
        const std::string value = trimBlanks(line.substr(colon + 1));
        if (value == kMixed)
            kept.insert(key);
        else
            values[key].push_back(unescape(value));
    }

    TagPatch patch;
    for (const auto& entry : values) {
        const std::string& key = entry.first;
        const std::vector<std::string>& list = entry.second;
        // The document shows a missing key as an empty line: left empty, it stays missing.
        const bool blank = list == std::vector<std::string>{""};
        const bool unchanged =
            !original.empty() &&
            std::all_of(original.begin(), original.end(), [&](const PropertyMap& f) {
                const auto& had = valuesOf(f, key);
                return had == list || (blank && had.empty());
            });
        if (!unchanged) patch.changes[key] = list;
    }
    for (const auto& file : original)
        for (const auto& [key, list] : file)
            if (!excluded(key) && !values.count(key) && !kept.count(key)) patch.remove.insert(key);
    return patch;
}

} // namespace trovan
