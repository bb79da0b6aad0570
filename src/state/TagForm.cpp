// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/TagForm.h"
#include "text/Text.h"

namespace trovan {

namespace {
std::string joinedValues(const PropertyMap& map, const std::string& key) {
    auto it = map.find(key);
    if (it == map.end()) return {};
    std::string out;
    for (std::size_t i = 0; i < it->second.size(); ++i) {
        if (i > 0) out += "; ";
        out += it->second[i];
    }
    return out;
}

std::string trimBlanks(const std::string& s) {
    return std::string(text::trim(s, " \t"));
}
} // namespace

const std::vector<std::pair<std::string, std::string>>& TagForm::layout() {
    static const std::vector<std::pair<std::string, std::string>> fields = {
        {"TITLE", "Título"},       {"ARTIST", "Artista"}, {"ALBUMARTIST", "Artista del álbum"},
        {"ALBUM", "Álbum"},        {"DATE", "Año"},       {"TRACKNUMBER", "Pista"},
        {"DISCNUMBER", "Disco"},   {"GENRE", "Género"},   {"COMPOSER", "Compositor"},
        {"COMMENT", "Comentario"},
    };
    return fields;
}

TagForm::TagForm(std::vector<std::string> paths_, const std::vector<PropertyMap>& properties)
    : paths(std::move(paths_)) {
    for (const auto& [key, label] : layout()) {
        Field field;
        field.key = key;
        field.label = label;
        std::string common;
        bool mixed = false;
        for (std::size_t i = 0; i < paths.size(); ++i) {
            static const PropertyMap none;
            std::string joined = joinedValues(i < properties.size() ? properties[i] : none, key);
            if (i == 0)
                common = std::move(joined);
            else if (joined != common)
                mixed = true;
        }
        if (mixed) {
            field.mixed = true;
        } else {
            field.input = TextInput(common);
            field.original = common;
        }
        fields.push_back(std::move(field));
    }
}

TagPatch TagForm::patch() const {
    TagPatch p;
    for (const Field& field : fields) {
        if (field.input.text == field.original) continue;
        std::string value = trimBlanks(field.input.text);
        if (value.empty())
            p.remove.insert(field.key);
        else
            p.changes[field.key] = {value};
    }
    return p;
}

} // namespace trovan
