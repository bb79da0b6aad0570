// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The in-screen tag form: the ten common tags of one or many files, each with its
// own line editor, and the patch that saving it produces.

#include "state/TextInput.h"
#include "tags/TagPatch.h"

#include <string>
#include <vector>

namespace trovan {

struct TagForm {
    struct Field {
        std::string key;   // tag key, e.g. "ALBUMARTIST"
        std::string label; // what the form shows, e.g. "Artista del álbum"
        TextInput input;
        std::string original; // the common value the field started with
        bool mixed = false;   // the files disagree; the field starts empty

        bool operator==(const Field&) const = default;
    };

    std::vector<std::string> paths;
    std::vector<Field> fields;
    int focused = 0;

    TagForm() = default;
    // One property map per path (a file that could not be read gives an empty map).
    TagForm(std::vector<std::string> paths, const std::vector<PropertyMap>& properties);

    // The changes the user made: untouched fields are left alone, emptied fields are
    // removed, edited fields become one value with surrounding blanks trimmed.
    TagPatch patch() const;

    // The keys and labels of the ten fields, in form order.
    static const std::vector<std::pair<std::string, std::string>>& layout();

    bool operator==(const TagForm&) const = default;
};

} // namespace trovan
