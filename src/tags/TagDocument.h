// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The tags of one or many files as a plain text document for the user's own editor, and
// the patch read back from the edited text. One line per value ("KEY: value", the key
// ending at the first ": "); a key whose files disagree shows "<varios>" and is left
// alone unless edited; deleting a line deletes the tag. Inside a value a backslash is
// written as \\, a line break as \n, a carriage return as \r, and a blank at either end
// or a value that reads "<varios>" gets a backslash before it, so that every value shown
// reads back exactly.
//
// A key the document cannot show exactly (a name that holds ": " or control characters,
// a value with control characters or that is not UTF-8) is left out, named in a comment
// line, and never changed. Lyrics have their own document and never appear here.
//
// Reading the edited text back is strict: a line without a colon, a key that appears
// again after other keys, a hidden key, or text that is not UTF-8 is a problem named
// with its line number, and then nothing is written.

#include "tags/TagPatch.h"

#include <string>
#include <vector>

namespace trovan {

class TagDocument {
public:
    struct Parsed {
        TagPatch patch;
        // "Línea N: …", in line order; when there is any, `patch` is empty.
        std::vector<std::string> problems;
    };

    static std::string render(const std::vector<PropertyMap>& files);
    static Parsed parse(const std::string& text, const std::vector<PropertyMap>& original);

    // The ten common keys first, always; then every other key of any file but the
    // excluded and the hidden ones, in plain text order.
    static std::vector<std::string> orderedKeys(const std::vector<PropertyMap>& files);
    // Keys of the files that the document leaves alone, in plain text order.
    static std::vector<std::string> hiddenKeys(const std::vector<PropertyMap>& files);
    static bool excluded(const std::string& key) { return key == "LYRICS"; }
    static std::string escape(const std::string& value);
    static std::string unescape(const std::string& value);

    // The lyrics document holds the first LYRICS value; the others (lyrics in other
    // languages) stay. An empty text removes the first value.
    static TagPatch lyricsPatch(const std::vector<std::string>& lyrics, const std::string& text);
};

} // namespace trovan
