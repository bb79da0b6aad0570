// SPDX-License-Identifier: GPL-3.0-or-later
#include "tags/TagDocument.h"

#include "text/Text.h"

#include <algorithm>
#include <map>
#include <set>

namespace trovan {

namespace {

const std::vector<std::string> kCommonKeys = {"TITLE",    "ARTIST",      "ALBUMARTIST", "ALBUM",
                                              "DATE",     "TRACKNUMBER", "DISCNUMBER",  "GENRE",
                                              "COMPOSER", "COMMENT"};
const std::string kMixed = "<varios>";

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string trimBlanks(const std::string& s) {
    return std::string(text::trim(s, " \t"));
}

// Control characters other than the ones a value may hold (`allowed`).
bool hasControl(const std::string& s, std::string_view allowed) {
    return std::any_of(s.begin(), s.end(), [&](char c) {
        const auto u = static_cast<unsigned char>(c);
        return (u < 0x20 || u == 0x7f) && allowed.find(c) == std::string_view::npos;
    });
}

// A key written "KEY: value" reads back as the same key.
bool showableKey(const std::string& key) {
    return !key.empty() && text::isValidUtf8(key) && !hasControl(key, {}) &&
           !isBlank(key.front()) && !isBlank(key.back()) && key.front() != '#' &&
           key.find(": ") == std::string::npos && key.back() != ':';
}

bool showableValue(const std::string& value) {
    return text::isValidUtf8(value) && !hasControl(value, "\t\n\r");
}

const std::vector<std::string>& valuesOf(const PropertyMap& map, const std::string& key) {
    static const std::vector<std::string> none;
    auto it = map.find(key);
    return it == map.end() ? none : it->second;
}

bool sameInAll(const std::vector<PropertyMap>& files, const std::string& key) {
    if (files.empty()) return true;
    const auto& first = valuesOf(files.front(), key);
    return std::all_of(files.begin(), files.end(),
                       [&](const PropertyMap& f) { return valuesOf(f, key) == first; });
}

// A key's name as a comment can show it, whatever bytes it holds.
std::string printable(const std::string& key) {
    std::string out = text::isValidUtf8(key) ? key : text::repairUtf8(key);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return out;
}

std::string upperAscii(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

// The value part of a line: blanks around it dropped, except one kept by a backslash.
std::string valueText(const std::string& rest) {
    std::size_t a = 0;
    while (a < rest.size() && isBlank(rest[a]))
        ++a;
    std::size_t b = rest.size();
    while (b > a && isBlank(rest[b - 1])) {
        std::size_t slashes = 0;
        while (b - 1 - slashes > a && rest[b - 2 - slashes] == '\\')
            ++slashes;
        if (slashes % 2 == 1) break; // an escaped blank
        --b;
    }
    return rest.substr(a, b - a);
}

std::string lineLabel(std::size_t line) {
    return "Línea " + std::to_string(line) + ": ";
}

} // namespace

std::vector<std::string> TagDocument::hiddenKeys(const std::vector<PropertyMap>& files) {
    std::set<std::string> hidden;
    for (const auto& file : files)
        for (const auto& [key, values] : file) {
            if (excluded(key) || hidden.count(key)) continue;
            if (!showableKey(key))
                hidden.insert(key);
            else if (sameInAll(files, key) &&
                     !std::all_of(values.begin(), values.end(), showableValue))
                hidden.insert(key);
        }
    return {hidden.begin(), hidden.end()};
}

std::vector<std::string> TagDocument::orderedKeys(const std::vector<PropertyMap>& files) {
    std::vector<std::string> keys = kCommonKeys;
    const auto hidden = hiddenKeys(files);
    std::set<std::string> others;
    for (const auto& file : files)
        for (const auto& [key, values] : file)
            if (!excluded(key) &&
                std::find(kCommonKeys.begin(), kCommonKeys.end(), key) == kCommonKeys.end() &&
                !std::binary_search(hidden.begin(), hidden.end(), key))
                others.insert(key);
    keys.erase(std::remove_if(keys.begin(), keys.end(),
                              [&](const std::string& k) {
                                  return std::binary_search(hidden.begin(), hidden.end(), k);
                              }),
               keys.end());
    keys.insert(keys.end(), others.begin(), others.end());
    return keys;
}

std::string TagDocument::escape(const std::string& value) {
    if (value == kMixed) return "\\" + value;
    std::string out;
    out.reserve(value.size() + 2);
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else if (isBlank(c) && (i == 0 || i + 1 == value.size()))
            out += std::string("\\") + c;
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
            out += value[i] == 'n' ? '\n' : value[i] == 'r' ? '\r' : value[i];
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
    if (const auto hidden = hiddenKeys(files); !hidden.empty()) {
        out += "# Se conservan sin mostrar (este documento no las puede escribir tal cual):";
        for (std::size_t i = 0; i < hidden.size(); ++i)
            out += (i == 0 ? " " : ", ") + printable(hidden[i]);
        out += "\n";
    }
    out += "\n";
    for (const auto& key : orderedKeys(files)) {
        const auto& first = files.empty() ? valuesOf({}, key) : valuesOf(files.front(), key);
        if (!sameInAll(files, key)) {
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

TagDocument::Parsed TagDocument::parse(const std::string& text,
                                       const std::vector<PropertyMap>& original) {
    std::set<std::string> known;
    for (const auto& file : original)
        for (const auto& [key, values] : file)
            known.insert(key);
    const auto hiddenList = hiddenKeys(original);
    const std::set<std::string> hidden(hiddenList.begin(), hiddenList.end());

    Parsed out;
    auto problem = [&](std::size_t line, const std::string& what) {
        out.problems.push_back(lineLabel(line) + what);
    };
    std::map<std::string, std::vector<std::string>> values;
    std::set<std::string> kept;
    std::map<std::string, std::size_t> firstLine;
    std::string lastKey;
    std::size_t start = 0;
    for (std::size_t number = 1; start <= text.size(); ++number) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        // Editors that save with CRLF leave a carriage return at the end of each line.
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const std::string trimmed = trimBlanks(line);
        if (trimmed.empty() || trimmed[0] == '#') continue;

        std::string key, rest;
        if (auto sep = line.find(": "); sep != std::string::npos) {
            key = line.substr(0, sep);
            rest = line.substr(sep + 2);
        } else if (trimmed.back() == ':') {
            key = trimmed.substr(0, trimmed.size() - 1);
        } else if (auto colon = line.find(':'); colon != std::string::npos) {
            key = line.substr(0, colon);
            rest = line.substr(colon + 1);
        } else {
            problem(number, "falta «:» entre la clave y el valor");
            continue;
        }
        key = trimBlanks(key);
        if (key.empty()) {
            problem(number, "falta la clave antes de «:»");
            continue;
        }
        if (!text::isValidUtf8(key) || hasControl(key, {})) {
            problem(number, "la clave tiene caracteres que no son texto");
            continue;
        }
        if (!known.count(key)) key = upperAscii(key);
        if (excluded(key)) continue; // lyrics have their own document
        if (hidden.count(key)) {
            problem(number, key + " no se puede editar en este documento");
            continue;
        }
        const std::string value = valueText(rest);
        if (!text::isValidUtf8(value) || hasControl(value, "\t")) {
            problem(number, "el valor de " + key + " tiene caracteres que no son texto");
            continue;
        }
        if (key != lastKey && firstLine.count(key)) {
            problem(number, key + " ya apareció en la línea " + std::to_string(firstLine[key]) +
                                "; sus valores van en líneas seguidas");
            continue;
        }
        firstLine.emplace(key, number);
        lastKey = key;
        if (value == kMixed)
            kept.insert(key);
        else
            values[key].push_back(unescape(value));
        if (kept.count(key) && values.count(key))
            problem(number, key + " mezcla " + kMixed + " con valores");
    }
    if (!out.problems.empty()) return out;

    TagPatch& patch = out.patch;
    for (const auto& entry : values) {
        const auto& key = entry.first; // named, not bound: lambdas below capture them
        const auto& list = entry.second;
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
    for (const auto& key : known)
        if (!excluded(key) && !hidden.count(key) && !values.count(key) && !kept.count(key))
            patch.remove.insert(key);
    return out;
}

TagPatch TagDocument::lyricsPatch(const std::vector<std::string>& lyrics, const std::string& text) {
    std::vector<std::string> after;
    if (!text.empty()) after.push_back(text);
    if (!lyrics.empty()) after.insert(after.end(), lyrics.begin() + 1, lyrics.end());
    TagPatch patch;
    if (after == lyrics) return patch;
    if (after.empty())
        patch.remove.insert("LYRICS");
    else
        patch.changes["LYRICS"] = after;
    return patch;
}

} // namespace trovan
